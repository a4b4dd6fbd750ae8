// SPDX-License-Identifier: Apache-2.0
// The memory map of a process. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace memleak {

/// One line of /proc/PID/maps.
struct Mapping {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  std::uint64_t inode = 0;
  bool executable = false;
  bool shared_writable = false;  ///< writes change the file
  bool deleted = false;          ///< the file no longer exists under its name
  std::string path;              ///< or "[...]"; empty for plain anonymous memory
  bool IsFile() const { return path.starts_with('/'); }
};

/// The well-formed lines in the text of /proc/PID/maps.
std::vector<Mapping> ParseMaps(std::string_view maps);

/// Whether the text of /proc/PID/maps has a file with the name `library`, in any directory.
bool MapsLibrary(std::string_view maps, std::string_view library);

}  // namespace memleak
