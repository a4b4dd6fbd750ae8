// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/target/process_info.h"

namespace memleak {

/// The loader as a process has mapped it. Single-threaded.
struct MappedLoader {
  std::string path;        ///< as the process sees it
  std::uint64_t bias = 0;  ///< what is added to the addresses in `file`
  std::string file;        ///< the path for this controller

  /// All that are mapped, at least partly.
  static std::vector<MappedLoader> Find(const ProcessInfo& process);

  /// The address of the symbol `name` in the process. Throws UserError if there is none.
  std::uint64_t Address(const char* name) const;
};

}  // namespace memleak
