// From [library+0xoffset] to function, file and line. Knows nothing of reports or of printing.
// Called by the model; single-threaded.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/symbols/function_index.h"
#include "tools/symbols/symbol_options.h"

namespace memleak {

/// What is known of a library as a whole.
struct LibraryState {
  bool found = false;     ///< its file, or an unstripped one in its place, could be read
  std::string build_id;   ///< lower-case hexadecimal; empty when unknown
  std::string hint = {};  ///< the file that would give (more) symbols; empty when none is missing
  std::int64_t changed = 0;  ///< when its file became what it is, seconds since the epoch
};

/// What is known of an address in a library.
struct ResolvedAddress {
  std::uint64_t address = 0;  ///< in the file, based on p_vaddr; 0 unknown
  Symbols symbols;            ///< innermost inlined function first
};

/// Opens each library once and resolves each address once. Files may be for another architecture
/// than this machine's.
class Symbolizer {
 public:
  /// Without `options.debuginfod` the variable DEBUGINFOD_URLS is removed from the environment.
  explicit Symbolizer(SymbolOptions options = {});
  ~Symbolizer();
  Symbolizer(const Symbolizer&) = delete;
  Symbolizer& operator=(const Symbolizer&) = delete;

  /// Tells which offsets in `library` will be asked for, from which follows how large the pages of
  /// the machine were. Called before the first of them is resolved, or not at all.
  void Prepare(const std::string& library, const std::vector<std::uint64_t>& offsets);

  /// The code `offset` bytes into the executable mapping of `library`, a mapping's name as in a
  /// report. The reference lives until the library is released.
  const ResolvedAddress& Resolve(const std::string& library, std::uint64_t offset);

  /// Whether `library` was found, and what is missing.
  LibraryState StateOf(const std::string& library);

  /// Closes a library's files and forgets its addresses.
  void Release(const std::string& library);

 private:
  class Module;
  Module& ModuleOf(const std::string& library);

  SymbolOptions options_;
  std::map<std::string, std::unique_ptr<Module>> modules_;
};

}  // namespace memleak
