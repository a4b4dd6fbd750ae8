// SPDX-License-Identifier: Apache-2.0
#include "tools/base/rooted_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace memleak {

int OpenInRoot(const std::string& root, const std::string& path, int flags) {
  const int directory = open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return -1;
  open_how how{};
  how.flags = static_cast<unsigned>(flags | O_NOFOLLOW | O_CLOEXEC);
  how.resolve = RESOLVE_IN_ROOT;
  const auto file = syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how);
  const int error = errno;
  close(directory);
  errno = error;
  return static_cast<int>(file);
}

}  // namespace memleak
