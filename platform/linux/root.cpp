// The directory under which the tracker's fixed paths lie on Linux. Any thread, any context.
#include "platform/linux/root.h"

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

}  // namespace platform
