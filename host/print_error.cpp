// SPDX-License-Identifier: Apache-2.0
// One line on stderr. Not by stdio, whose streams belong to the program.
#include "host/print_error.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

namespace host {

void PrintError(const char* format, ...) {
  const int saved_errno = errno;
  constexpr int kTextBytes = 1000;
  char line[kTextBytes + 1] = "memleak: ";
  int length = 9;
  va_list arguments;
  va_start(arguments, format);
  length += vsnprintf(line + length, static_cast<size_t>(kTextBytes - length), format, arguments);
  va_end(arguments);
  if (length > kTextBytes - 1) length = kTextBytes - 1;
  line[length++] = '\n';
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
  errno = saved_errno;
}

}  // namespace host
