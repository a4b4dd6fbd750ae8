// Files and paths by POSIX calls.
#include "tools/base/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>

namespace memleak {

bool IsPlainFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool IsDirectory(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string LinkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  return length < 0 ? "" : std::string(target.data(), static_cast<std::size_t>(length));
}

std::string JoinPath(const std::string& directory, const std::string& below) {
  return directory + (directory.ends_with('/') ? "" : "/") + below;
}

std::string ParentPath(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string LastPart(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace memleak
