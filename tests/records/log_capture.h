// The tracker's log for tests that link a piece without the platform: lines are kept for the test.
// Included by one file of a test program only, since it defines the logger.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "async_safe/log.h"

/// Lines as "priority tag: text", oldest first.
inline std::vector<std::string>& LogLines() {
  static std::vector<std::string> lines;
  return lines;
}

// NOLINTNEXTLINE(misc-definitions-in-headers): see above
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
