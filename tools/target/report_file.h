// SPDX-License-Identifier: Apache-2.0
// The state of a report's file, which another process writes. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace memleak {

/// What distinguishes two states of a file.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modified_ns = 0;
  std::int64_t changed_ns = 0;
  bool operator==(const FileState&) const = default;
};

/// The state of the file at `path`; nothing if there is none.
std::optional<FileState> StateOf(const std::string& path);

/// Whether the file ends with the line "END" without a newline, which the tracker writes last.
bool EndsComplete(const std::string& path);

}  // namespace memleak
