// The end of a process in which the engine's own locks or keys no longer work. Any thread.
#include "linker/log_assert.h"

#include <android/log.h>

#include <cstdarg>
#include <cstdio>

namespace lumora::linker {

void log_assert(const char* format, ...) {
  char* text = nullptr;
  std::va_list arguments;
  va_start(arguments, format);
  // Without memory for the text, the bare format still says what went wrong.
  const bool formatted = vasprintf(&text, format, arguments) >= 0;
  va_end(arguments);
  __android_log_assert("", "linkerlib", "%s", formatted ? text : format);
}

}  // namespace lumora::linker
