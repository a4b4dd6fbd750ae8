// Files and paths by the system's own calls: the C++ library of a device has no std::filesystem.
// Called by the commands that run there too; single-threaded.
#pragma once

#include <string>

namespace memleak {

/// True when `path`, links followed, is a plain file.
bool IsPlainFile(const std::string& path);

/// True when `path`, links followed, is a directory.
bool IsDirectory(const std::string& path);

/// Where the symbolic link `path` leads; empty when it is none or cannot be read.
std::string LinkTarget(const std::string& path);

/// `directory` and `below`, which is relative, as one path.
std::string JoinPath(const std::string& directory, const std::string& below);

/// The directory that `path` lies in: "/" for what lies there, "." for a bare name.
std::string ParentPath(const std::string& path);

/// What stands after the last '/'.
std::string LastPart(const std::string& path);

}  // namespace memleak
