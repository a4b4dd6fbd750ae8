// SPDX-License-Identifier: Apache-2.0
#include "tools/base/files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>

namespace memleak {

Descriptor::~Descriptor() {
  const int error = errno;
  if (IsOpen()) close(number_);
  errno = error;
}

Descriptor OpenInRoot(const std::string& root, const std::string& path, int flags) {
  const Descriptor directory(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory.IsOpen()) return Descriptor();
  open_how how{};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_IN_ROOT;
  return Descriptor(
      static_cast<int>(syscall(SYS_openat2, directory.Number(), path.c_str(), &how, sizeof how)));
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
  if (file_.IsOpen()) {
    text_ = "/proc/self/fd/" + std::to_string(file_.Number());
  } else if (errno != ENOSYS) {
    text_ = "/proc/self/fd/none";
  }
}

Descriptor OpenToRead(const std::string& path, int flags) {
  return Descriptor(open(RootedPath(path).c_str(), O_RDONLY | O_CLOEXEC | flags));
}

bool IsPlainFile(const std::string& path) {
  struct stat status {};
  return stat(RootedPath(path).c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::optional<std::string> ReadAll(const Descriptor& file) {
  std::string text;
  std::array<char, 65536> buffer{};
  ssize_t count = 0;
  while ((count = read(file.Number(), buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  if (count < 0) return std::nullopt;
  return text;
}

std::optional<std::string> ReadTextFile(const std::string& path) {
  // The open of a pipe may block.
  if (!IsPlainFile(path)) return std::nullopt;
  const Descriptor file = OpenToRead(path);
  return file.IsOpen() ? ReadAll(file) : std::nullopt;
}

std::string LinkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  return length < 0 ? "" : std::string(target.data(), static_cast<std::size_t>(length));
}

std::string JoinPath(const std::string& directory, const std::string& below) {
  return directory + (directory.ends_with('/') ? "" : "/") + below;
}

std::string LastPart(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace memleak
