// SPDX-License-Identifier: Apache-2.0
// Files of processes that have another root directory. Linux only; any thread.
#pragma once

#include <cstddef>
#include <string>

namespace memleak {

/// Opens the absolute `path` as a process with the root directory `root` sees it: symbolic links,
/// also that of "..", do not lead out of `root`. `flags` are those of open(2). Returns a
/// descriptor, which the caller closes, or -1 with errno set: ENOSYS on kernels before 5.6 and
/// under emulators.
int OpenInRoot(const std::string& root, const std::string& path, int flags);

/// The length of "/proc/PID/root" at the start of `path`; 0 if it starts otherwise.
std::size_t OutsideBytes(const std::string& path);

/// A path by which this program opens the file `path`. If that starts with "/proc/PID/root", links
/// lead where they lead for process PID: the path is that of a descriptor which this object holds.
/// If there is no such file, the path of none. Kernels before 5.6 and emulators follow links in
/// their own root directory.
class RootedPath {
 public:
  explicit RootedPath(const std::string& path);
  ~RootedPath();
  RootedPath(const RootedPath&) = delete;
  RootedPath& operator=(const RootedPath&) = delete;

  const std::string& Text() const { return text_; }
  const char* c_str() const { return text_.c_str(); }

 private:
  int file_ = -1;
  std::string text_;
};

}  // namespace memleak
