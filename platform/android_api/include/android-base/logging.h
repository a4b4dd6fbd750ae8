// SPDX-License-Identifier: Apache-2.0
// Replacement for libbase's logging: LOG(ERROR) << "text", written to the async-signal-safe log.
//
// Used by the linker index and the hook engine, on any thread. A line is built on the stack,
// because it may report that there is no memory, and because the allocator itself may be hooked.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ios>

namespace android::base {

/// The severities that the tree uses. FATAL aborts the process after its line is written.
enum LogSeverity { ERROR, FATAL };

/// The part of std::ostream that log lines use. The C++ library's streams would link its locales,
/// which are larger than the rest of the tracker. Allocates nothing.
class LineStream {
 public:
  /// Longer lines are cut, as in the log.
  static constexpr std::size_t kLineBytes = 1024;

  LineStream() { text_[0] = '\0'; }
  /// Appends `text`, or nothing if it is null.
  LineStream& operator<<(const char* text);
  LineStream& operator<<(std::uintptr_t number);
  /// Takes std::hex or std::dec and sets the base of the numbers that follow.
  LineStream& operator<<(std::ios_base& (*base)(std::ios_base&));
  /// Returns the line, NUL-terminated, valid as long as this object.
  const char* text() const { return text_; }

 private:
  std::size_t length_ = 0;
  bool hexadecimal_ = false;
  char text_[kLineBytes];
};

/// Collects one line and writes "FILE:LINE] TEXT" with the program's name as tag when destroyed.
/// May change errno; LOG restores it.
class LogMessage {
 public:
  /// `file` must outlive the message.
  LogMessage(const char* file, unsigned int line, LogSeverity severity)
      : file_(file), line_(line), severity_(severity) {}
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;
  ~LogMessage();

  LineStream& stream() { return text_; }

 private:
  const char* file_;
  unsigned int line_;
  LogSeverity severity_;
  LineStream text_;
};

/// Restores errno at the end of the full expression that creates it.
class ErrnoRestorer {
 public:
  ErrnoRestorer() : saved_(errno) {}
  ErrnoRestorer(const ErrnoRestorer&) = delete;
  ErrnoRestorer& operator=(const ErrnoRestorer&) = delete;
  ~ErrnoRestorer() { errno = saved_; }

 private:
  int saved_;
};

}  // namespace android::base

/// A stream for one log line. Keeps errno. Any thread; not for signal handlers.
#define LOG(severity)               \
  ::android::base::ErrnoRestorer(), \
      ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity).stream()
