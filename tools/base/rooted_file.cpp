// SPDX-License-Identifier: Apache-2.0
#include "tools/base/rooted_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace memleak {

int OpenInRoot(const std::string& root, const std::string& path, int flags) {
  const int directory = open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return -1;
  open_how how{};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_IN_ROOT;
  const auto file = syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how);
  const int error = errno;
  close(directory);
  errno = error;
  return static_cast<int>(file);
}

std::size_t OutsideBytes(const std::string& path) {
  constexpr std::string_view kProc = "/proc/";
  constexpr std::string_view kRoot = "/root";
  if (!path.starts_with(kProc)) return 0;
  const std::size_t end = path.find_first_not_of("0123456789", kProc.size());
  if (end == kProc.size() || end == std::string::npos) return 0;
  return path.compare(end, kRoot.size() + 1, "/root/") == 0 ? end + kRoot.size() : 0;
}

RootedPath::RootedPath(const std::string& path) : text_(path) {
  const std::size_t outside = OutsideBytes(path);
  if (outside == 0) return;
  file_ = OpenInRoot(path.substr(0, outside), path.substr(outside), O_PATH);
  if (file_ >= 0) {
    text_ = "/proc/self/fd/" + std::to_string(file_);
  } else if (errno != ENOSYS) {
    text_ = "/proc/self/fd/none";
  }
}

RootedPath::~RootedPath() {
  if (file_ >= 0) close(file_);
}

}  // namespace memleak
