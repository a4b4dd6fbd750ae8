// SPDX-License-Identifier: Apache-2.0
// Ends the process if the engine's own locks or keys fail. Any thread.
#include "linker/log_assert.h"

#include <android/log.h>

#include <cstdarg>
#include <cstdio>

namespace lumora::linker {

void log_assert(const char* format, ...) {
  // Not vasprintf, which allocates.
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  __android_log_assert("", "linkerlib", "%s", text);
}

}  // namespace lumora::linker
