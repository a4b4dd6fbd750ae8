// The signal-safe log on Android outside a platform tree: liblog's, which the NDK has.
//
// Called from everywhere in the library: allocation paths, signal handlers, fork handlers. The text
// is formatted here, without allocation. liblog opens its socket to the log daemon at the first
// line, which the library writes when it is initialised, and sends each with one system call.
#include <android/log.h>
#include <async_safe/log.h>

#include <cerrno>
#include <cstddef>

#include "platform/standin/log_format.h"

extern "C" int async_safe_format_log_va_list(int priority, const char* tag, const char* format,
                                             std::va_list arguments) {
  constexpr std::size_t kLineBytes = 1024;  // as the platform's signal-safe log cuts it
  const int saved_errno = errno;
  char line[kLineBytes];
  platform::FormatTextVaList(line, sizeof(line), format, arguments);
  const int length = __android_log_write(priority, tag, line);
  errno = saved_errno;
  return length;
}
