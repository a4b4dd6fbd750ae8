// SPDX-License-Identifier: Apache-2.0
// Files and paths through POSIX calls: the C++ library of a device has no std::filesystem. Any
// thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace memleak {

/// Owns a file descriptor, or none if it is negative.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  /// Closes it. Keeps errno.
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  int Number() const { return number_; }
  bool IsOpen() const { return number_ >= 0; }

 private:
  int number_;
};

/// Opens the absolute `path` as a process with the root directory `root` sees it: symbolic links
/// and ".." cannot leave `root`. `flags` are those of open(2). Not open, with errno set, if that
/// fails: ENOSYS on kernels before 5.6 and under emulators.
Descriptor OpenInRoot(const std::string& root, const std::string& path, int flags);

/// The length of "/proc/PID/root" at the start of `path`; 0 if it starts otherwise.
std::size_t OutsideBytes(const std::string& path);

/// A path by which this program opens the file `path`. If that starts with "/proc/PID/root", links
/// lead where they lead for process PID: the path is that of a descriptor which this object holds.
/// If there is no such file, the path of none. Kernels before 5.6 and emulators follow links in
/// their own root directory.
class RootedPath {
 public:
  explicit RootedPath(const std::string& path);

  const std::string& Text() const { return text_; }
  const char* c_str() const { return text_.c_str(); }

 private:
  Descriptor file_;
  std::string text_;
};

/// Opens the file `path`, as RootedPath finds it, for reading. `flags` are further ones of open(2).
/// Not open, with errno set, if that fails.
Descriptor OpenToRead(const std::string& path, int flags = 0);

/// Whether `path`, as RootedPath finds it, is a regular file.
bool IsPlainFile(const std::string& path);

/// The rest of the content of `file`; nothing, with errno set, if reading fails.
std::optional<std::string> ReadAll(const Descriptor& file);

/// The text of a regular file; nothing if it is unreadable.
std::optional<std::string> ReadTextFile(const std::string& path);

/// The target of the symbolic link `path`; empty if it is no link or unreadable.
std::string LinkTarget(const std::string& path);

/// `below`, a relative path, appended to `directory`.
std::string JoinPath(const std::string& directory, const std::string& below);

/// The part of `path` after the last '/'.
std::string LastPart(const std::string& path);

}  // namespace memleak
