// Stand-in for Android's base logging: LOG(ERROR) << "text", to the same place as the
// signal-safe log.
//
// Used by the hook engine, on any thread. A line is built on the stack: a line about a lack of
// memory must not need any, and hooks may be in the allocator itself.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ios>

namespace android::base {

/// As in the platform's header; FATAL ends the process once its line is written.
enum LogSeverity { VERBOSE, DEBUG, INFO, WARNING, ERROR, FATAL_WITHOUT_ABORT, FATAL };

/// As much of a std::ostream as log lines use: text, and numbers after std::hex. The C++ library's
/// own would bring its locales along, which are larger than all the rest of the library. Text
/// beyond kLineBytes is cut off, as the log beneath does. Allocates nothing.
class LineStream {
 public:
  static constexpr std::size_t kLineBytes = 1024;

  LineStream() { text_[0] = '\0'; }
  /// Null is no text.
  LineStream& operator<<(const char* text);
  LineStream& operator<<(std::uintptr_t number);
  /// std::hex or std::dec: how numbers are written from here on.
  LineStream& operator<<(std::ios_base& (*base)(std::ios_base&));
  /// The line so far, NUL-terminated.
  const char* text() const { return text_; }

 private:
  std::size_t length_ = 0;
  bool hexadecimal_ = false;
  char text_[kLineBytes];
};

/// Collects one line and writes it, as "FILE:LINE] TEXT", when destroyed. Does not keep errno by
/// itself: LOG does.
class LogMessage {
 public:
  /// `file` and `tag` are not copied; a null tag stands for the program's name. An `error` other
  /// than -1 appends ": " and strerror's text of it.
  LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag, int error);
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;
  ~LogMessage();

  /// Where the text goes, for as long as the message lives.
  LineStream& stream() { return text_; }

 private:
  const char* file_;
  unsigned int line_;
  LogSeverity severity_;
  const char* tag_;
  int error_;
  LineStream text_;
};

/// Puts errno back as it was, at the end of the full expression that it stands in.
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

/// A stream for one log line of this severity. errno is after the statement what it was before it.
#define LOG(severity)                                                                         \
  ::android::base::ErrnoRestorer(),                                                           \
      ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity, nullptr, -1) \
          .stream()
