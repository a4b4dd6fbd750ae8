// From [library+0xoffset] to function, file and line. Knows nothing of reports or of printing.
// Called by the model; single-threaded.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tools/report/function_index.h"
#include "tools/report/symbol_options.h"

namespace memleak {

/// The file address of the byte `offset` bytes into the mapping of an executable segment, given the
/// segment's p_vaddr: mappings begin at page borders.
constexpr std::uint64_t FileAddress(std::uint64_t offset, std::uint64_t segment_vaddr) {
  constexpr std::uint64_t kPageBytes = 4096;
  return offset + (segment_vaddr & ~(kPageBytes - 1));
}

/// What is known of a library as a whole.
struct LibraryState {
  bool found = false;    ///< its file, or an unstripped one in its place, could be read
  std::string build_id;  ///< lower-case hexadecimal; empty when unknown
  std::string hint;      ///< the file that would give (more) symbols; empty when none is missing
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
  explicit Symbolizer(SymbolOptions options = {});
  ~Symbolizer();
  Symbolizer(const Symbolizer&) = delete;
  Symbolizer& operator=(const Symbolizer&) = delete;

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
