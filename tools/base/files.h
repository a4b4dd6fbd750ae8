// SPDX-License-Identifier: Apache-2.0
// Files and paths through POSIX calls: the C++ library of a device has no std::filesystem. Any
// thread.
#pragma once

#include <optional>
#include <string>

namespace memleak {

/// Whether `path`, with links followed as RootedPath does, is a regular file.
bool IsPlainFile(const std::string& path);

/// The rest of the content of the descriptor `file`; nothing, with errno set, if reading fails.
std::optional<std::string> ReadAll(int file);

/// The target of the symbolic link `path`; empty if it is no link or unreadable.
std::string LinkTarget(const std::string& path);

/// `below`, a relative path, appended to `directory`.
std::string JoinPath(const std::string& directory, const std::string& below);

/// The part of `path` after the last '/'.
std::string LastPart(const std::string& path);

}  // namespace memleak
