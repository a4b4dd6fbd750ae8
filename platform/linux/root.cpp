// SPDX-License-Identifier: Apache-2.0
// The directory that contains the tracker's files on Linux.
#include "platform/linux/root.h"

#include <algorithm>
#include <cstring>

namespace platform {

std::size_t RootedPath(const char* below, char (&path)[kPathBytes]) {
  const char* root = CapturedValue(Variable::kRoot);
  std::size_t length = ExpandPath(root != nullptr ? root : "", "", path);
  while (length > 0 && path[length - 1] == '/') --length;
  const std::size_t more = strnlen(below, kPathBytes - 1 - length);
  std::memcpy(path + length, below, more);
  path[length + more] = '\0';
  return length + more;
}

int OpenRooted(const char* below, protocol::Use use, char (&path)[kPathBytes],
               protocol::Refusal& refusal) {
  // A path that was cut to fit cannot be opened: it is longer than PATH_MAX.
  const std::size_t length = RootedPath(below, path);
  const std::size_t root_bytes = length - std::min(length, std::strlen(below));
  return protocol::OpenBelowRoot(path, root_bytes, use, refusal);
}

}  // namespace platform
