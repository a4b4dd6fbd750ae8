// SPDX-License-Identifier: Apache-2.0
// liblog's assertion on Linux. Any thread; not for signal handlers.
#include <android/log.h>
#include <async_safe/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" void __android_log_assert(const char* /*condition*/, const char* tag, const char* format,
                                     ...) {
  char text[1024];
  std::va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is just above
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  async_safe_format_log(ANDROID_LOG_FATAL, tag, "%s", text);
  std::abort();
}
