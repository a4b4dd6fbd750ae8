// SPDX-License-Identifier: Apache-2.0
// Fakes of the logger and the properties. The linker redirects the calls here.
#include "tests/backtrace/fakes.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace {

std::pair<std::string, std::string>& Property() {
  static std::pair<std::string, std::string> property;
  return property;
}

}  // namespace

namespace fakes {

std::vector<std::string>& LogLines() {
  static std::vector<std::string> lines;
  return lines;
}

void SetProperty(const std::string& name, const std::string& value) {
  Property() = {name, value};
}

}  // namespace fakes

extern "C" {

int __wrap_async_safe_format_log(int priority, const char* tag, const char* format, ...) {
  char text[256];
  std::va_list arguments;
  va_start(arguments, format);
  // The analyzer considers it uninitialized in a C++ variadic function.
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  fakes::LogLines().push_back(std::to_string(priority) + " " + tag + ": " + text);
  return length;
}

int __wrap___system_property_get(const char* name, char* value) {
  const std::string& found = Property().first == name ? Property().second : "";
  found.copy(value, found.size());
  value[found.size()] = '\0';
  return static_cast<int>(found.size());
}

}  // extern "C"
