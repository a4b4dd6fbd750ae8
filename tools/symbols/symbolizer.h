// SPDX-License-Identifier: Apache-2.0
// Converts [library+0xoffset] to function, file and line. Single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/symbols/code_ranges.h"
#include "tools/symbols/function_index.h"
#include "tools/symbols/symbol_options.h"

namespace memleak {

/// The state of a library.
struct LibraryState {
  bool found = false;        ///< its file, or an unstripped copy, is readable
  std::string build_id;      ///< lower-case hexadecimal; empty if unknown
  std::string hint = {};     ///< the file that would give more symbols; empty if none
  std::int64_t changed = 0;  ///< when its file got its contents, seconds since the epoch
};

/// An address in a library.
struct ResolvedAddress {
  std::uint64_t address = 0;  ///< in the file, relative to p_vaddr; 0 if unknown
  Symbols symbols;            ///< innermost inlined function first
};

/// The symbols of one library, of any architecture. Its files are open as long as the object lives.
class Symbolizer {
 public:
  /// Opens the library of a mapping with the name `library` in a report. `offsets` are those that
  /// will be resolved, to guess the machine's page size; may be empty. A file with another build id
  /// than `build_id`, unless that is empty, is not used. Without `options.debuginfod` the variable
  /// DEBUGINFOD_URLS is removed from the environment.
  explicit Symbolizer(std::string library, const SymbolOptions& options = {},
                      const std::vector<std::uint64_t>& offsets = {}, std::string build_id = "");
  ~Symbolizer() { dwfl_end(session_); }
  Symbolizer(const Symbolizer&) = delete;
  Symbolizer& operator=(const Symbolizer&) = delete;

  /// The code `offset` bytes into the executable mapping.
  ResolvedAddress Resolve(std::uint64_t offset);
  /// The code at an address in the file.
  ResolvedAddress ResolveAddress(std::uint64_t address);

  /// Whether the library was found, and which file is missing.
  LibraryState State();

 private:
  void Open(const std::vector<std::uint64_t>& offsets);
  void Load();
  std::optional<std::uint64_t> AddressOf(std::uint64_t offset) const;

  std::string name_;
  std::string file_;
  // Of libdwfl's search for debug files. It rejects files of another build by build id or, without
  // one, by the checksum of the debug link.
  std::string search_path_;
  char* search_path_start_ = nullptr;
  Dwfl_Callbacks callbacks_{};
  std::string build_id_;
  Dwfl* session_ = nullptr;
  Dwfl_Module* module_ = nullptr;
  std::vector<CodeRange> code_;
  GElf_Addr bias_ = 0;         // added to file addresses, gives those of the session
  Dwarf_Addr dwarf_bias_ = 0;  // the same for the file with the debug information
  std::optional<SymbolIndex> symbols_;
  std::optional<DwarfIndex> dwarf_;
};

}  // namespace memleak
