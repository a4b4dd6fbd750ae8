// SPDX-License-Identifier: Apache-2.0
// Reads /proc/self/maps without the C library's streams.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "platform/raw_calls.h"

namespace platform {

/// Calls visit(const char* line) for each line, without its newline, until it returns false.
/// Returns false if the file cannot be opened. May change errno. Any thread. Uses 8 KiB of the
/// stack; allocates nothing and takes no lock.
template <typename Visitor>
bool ForEachMapsLine(Visitor visit) {
  const int file = RawOpen("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  char buffer[8192];
  std::size_t used = 0;
  bool more = true;
  while (more) {
    const ssize_t count = RawRead(file, buffer + used, sizeof buffer - 1 - used);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    used += static_cast<std::size_t>(count);
    buffer[used] = '\0';
    char* line = buffer;
    for (char* end = nullptr; more && (end = std::strchr(line, '\n')) != nullptr; line = end + 1) {
      *end = '\0';
      more = visit(static_cast<const char*>(line));
    }
    used -= static_cast<std::size_t>(line - buffer);
    std::memmove(buffer, line, used);
  }
  RawClose(file);
  return true;
}

}  // namespace platform
