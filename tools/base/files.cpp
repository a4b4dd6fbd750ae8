// SPDX-License-Identifier: Apache-2.0
#include "tools/base/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>

#include "tools/base/rooted_file.h"

namespace memleak {

bool IsPlainFile(const std::string& path) {
  struct stat status {};
  return stat(RootedPath(path).c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::optional<std::string> ReadAll(int file) {
  std::string text;
  std::array<char, 65536> buffer{};
  ssize_t count = 0;
  while ((count = read(file, buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  if (count < 0) return std::nullopt;
  return text;
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
