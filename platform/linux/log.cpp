// SPDX-License-Identifier: Apache-2.0
// The async-signal-safe log on Linux: appends lines to the file that MEMLEAK_TRACKER_LOG names.
#include <async_safe/log.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/android_api/log_format.h"
#include "platform/linux/environment.h"
#include "platform/raw_calls.h"
#include "protocol/private_files.h"
#include "protocol/protocol.h"

namespace {

constexpr std::size_t kLineBytes = 1024;

char PriorityLetter(int priority) {
  switch (priority) {
    case ANDROID_LOG_INFO:
      return 'I';
    case ANDROID_LOG_ERROR:
      return 'E';
    case ANDROID_LOG_FATAL:
      return 'F';
    default:
      return '?';
  }
}

/// Formats a line with its newline. Returns its length; `line` is not NUL-terminated.
std::size_t FormatLine(char (&line)[kLineBytes], int priority, const char* tag, const char* format,
                       std::va_list arguments) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  constexpr std::size_t kTextLimit = kLineBytes - 1;  // without the newline
  std::size_t length = platform::FormatText(
      line, kTextLimit, "%ld.%03ld %d %ld %c %s: ", static_cast<long>(now.tv_sec),
      now.tv_nsec / 1000000, getpid(), syscall(SYS_gettid), PriorityLetter(priority),
      tag != nullptr ? tag : "");
  if (length < kTextLimit) {
    length += platform::FormatTextVaList(line + length, kTextLimit - length, format, arguments);
  }
  if (length > kTextLimit - 1) length = kTextLimit - 1;
  if (line[length - 1] != '\n') line[length++] = '\n';
  return length;
}

/// Writes once without raising SIGPIPE in the program's thread if the pipe's reader is gone: blocks
/// the signal and consumes it, unless one was pending already. Direct system calls are no
/// cancellation points and use the kernel's signal set.
void WriteQuietly(int file, const char* line, std::size_t length) {
  constexpr std::uint64_t kPipeSignal = std::uint64_t{1} << (SIGPIPE - 1);
  constexpr std::size_t kSetBytes = sizeof(kPipeSignal);
  std::uint64_t blocked = 0;
  std::uint64_t waiting = 0;
  if (syscall(SYS_rt_sigprocmask, SIG_BLOCK, &kPipeSignal, &blocked, kSetBytes) != 0) return;
  syscall(SYS_rt_sigpending, &waiting, kSetBytes);
  if (platform::RawWrite(file, line, length) < 0 && errno == EPIPE &&
      (waiting & kPipeSignal) == 0) {
    constexpr timespec kNow{0, 0};
    syscall(SYS_rt_sigtimedwait, &kPipeSignal, nullptr, &kNow, kSetBytes);
  }
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &blocked, nullptr, kSetBytes);
}

/// Writes a line to the log. Opens the file for each line, because lines are rare and the program
/// might close or reuse an open descriptor. A line that cannot be written is lost.
void WriteLine(const char* line, std::size_t length) {
  const char* destination = platform::CapturedValue(platform::Variable::kLog);
  if (destination == nullptr) return;
  if (std::strcmp(destination, protocol::kLogToStderr) == 0) {
    WriteQuietly(STDERR_FILENO, line, length);
    return;
  }
  char path[platform::kPathBytes];
  platform::ExpandPath(destination, "", path);
  protocol::Refusal refusal;
  const int file = protocol::OpenFile(AT_FDCWD, path, protocol::Use::kAppend, refusal);
  if (file < 0) return;
  WriteQuietly(file, line, length);
  platform::RawClose(file);
}

}  // namespace

extern "C" int async_safe_format_log(int priority, const char* tag, const char* format, ...) {
  const int saved_errno = errno;
  char line[kLineBytes];
  std::va_list arguments;
  va_start(arguments, format);
  const std::size_t length = FormatLine(line, priority, tag, format, arguments);
  va_end(arguments);
  WriteLine(line, length);
  errno = saved_errno;
  return static_cast<int>(length);
}
