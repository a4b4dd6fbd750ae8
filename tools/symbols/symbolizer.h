// SPDX-License-Identifier: Apache-2.0
// Converts [library+0xoffset] to function, file and line. Single-threaded.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

/// Opens each library once and resolves each address once. Reads files of any architecture.
class Symbolizer {
 public:
  /// Without `options.debuginfod` the variable DEBUGINFOD_URLS is removed from the environment.
  explicit Symbolizer(SymbolOptions options = {});
  ~Symbolizer();
  Symbolizer(const Symbolizer&) = delete;
  Symbolizer& operator=(const Symbolizer&) = delete;

  /// Announces the offsets in `library` that will be resolved, to guess the machine's page size.
  /// Optional; called before the first Resolve.
  void Prepare(const std::string& library, const std::vector<std::uint64_t>& offsets);

  /// The code `offset` bytes into the executable mapping of `library`, a mapping's name in a
  /// report. The reference is valid until the library is released.
  const ResolvedAddress& Resolve(const std::string& library, std::uint64_t offset);

  /// Whether `library` was found, and which file is missing.
  LibraryState StateOf(const std::string& library);

  /// Closes the files of `library` and drops its addresses.
  void Release(const std::string& library);

 private:
  class Module;
  Module& ModuleOf(const std::string& library);

  SymbolOptions options_;
  std::map<std::string, std::unique_ptr<Module>> modules_;
};

}  // namespace memleak
