// SPDX-License-Identifier: Apache-2.0
// The functions and objects that a library defines for others. Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace memleak {

/// A definition in the dynamic symbol table of a file.
struct ElfSymbol {
  std::string name;           ///< without its version
  std::uint64_t address = 0;  ///< in the file, without the load bias
  std::uint64_t bytes = 0;
  bool is_function = false;
};

/// The definitions in `path`; empty if it is unreadable, no ELF file, or without a section table.
std::vector<ElfSymbol> ReadDefinitions(const std::string& path);

}  // namespace memleak
