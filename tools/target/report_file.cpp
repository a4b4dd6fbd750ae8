// SPDX-License-Identifier: Apache-2.0
// Reads the state and the end of a file.
#include "tools/target/report_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "tools/base/rooted_file.h"

namespace memleak {
namespace {

std::int64_t Nanoseconds(const timespec& time) {
  return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

}  // namespace

std::optional<FileState> StateOf(const std::string& path) {
  struct stat status {};
  if (stat(RootedPath(path).c_str(), &status) != 0) return std::nullopt;
  return FileState{status.st_dev, status.st_ino, status.st_size, Nanoseconds(status.st_mtim),
                   Nanoseconds(status.st_ctim)};
}

bool EndsComplete(const std::string& path) {
  constexpr std::string_view kEndLine = "\nEND";
  const int file = open(RootedPath(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return false;
  std::array<char, kEndLine.size()> tail{};
  const auto length = static_cast<off_t>(tail.size());
  const off_t start = lseek(file, 0, SEEK_END) - length;
  const bool has_tail = start >= 0 && pread(file, tail.data(), tail.size(), start) == length;
  close(file);
  return has_tail && std::string_view(tail.data(), tail.size()) == kEndLine;
}

}  // namespace memleak
