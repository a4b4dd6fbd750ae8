// The variadic form of the signal-safe log, on top of the system's own. Any thread, any context.
#include <async_safe/log.h>

#include <cstdarg>

extern "C" int async_safe_format_log(int priority, const char* tag, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int length = async_safe_format_log_va_list(priority, tag, format, arguments);
  va_end(arguments);
  return length;
}
