// SPDX-License-Identifier: Apache-2.0
// The logger of the record tests.
#include "tests/records/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "async_safe/log.h"

extern "C" int async_safe_format_log(int priority, const char* tag, const char* format, ...) {
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  char text[1024];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  LogLines().push_back(std::to_string(priority) + " " + tag + ": " + text);
  return length;
}
