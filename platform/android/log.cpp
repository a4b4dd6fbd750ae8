// SPDX-License-Identifier: Apache-2.0
// The async-signal-safe log by liblog, which the NDK has. A platform tree has libasync_safe.
//
// liblog opens its socket at the first line, which the tracker writes during its initialization,
// and writes each line with one system call.
#include <android/log.h>
#include <async_safe/log.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>

#include "platform/android_api/log_format.h"

extern "C" int async_safe_format_log(int priority, const char* tag, const char* format, ...) {
  constexpr std::size_t kLineBytes = 1024;  // the limit of libasync_safe
  const int saved_errno = errno;
  char line[kLineBytes];
  std::va_list arguments;
  va_start(arguments, format);
  platform::FormatTextVaList(line, sizeof(line), format, arguments);
  va_end(arguments);
  const int length = __android_log_write(priority, tag, line);
  errno = saved_errno;
  return length;
}
