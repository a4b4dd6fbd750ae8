// From [library+0xoffset] to function, file and line. Knows nothing of reports or of printing.
// Called by `show`; single-threaded.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace memleak {

/// One function at an address; several where calls were inlined.
struct SourceFrame {
  std::string function;  ///< demangled; empty when no symbol covers the address
  std::string file;      ///< empty without line information
  int line = 0;          ///< 0 without line information
};

/// What is known of one address, innermost inlined function first; empty when nothing is.
using Symbols = std::vector<SourceFrame>;

/// The file address of the byte `offset` bytes into the mapping of an executable segment, given the
/// segment's p_vaddr: mappings begin at page borders.
constexpr std::uint64_t FileAddress(std::uint64_t offset, std::uint64_t segment_vaddr) {
  constexpr std::uint64_t kPageBytes = 4096;
  return offset + (segment_vaddr & ~(kPageBytes - 1));
}

/// The readable form of a C++ symbol; other names are returned as they are.
std::string Demangle(const std::string& symbol);

/// Opens each library once and resolves each address once. Files may be for another architecture
/// than this machine's. Separate debug files are found by build id below /usr/lib/debug.
class Symbolizer {
 public:
  Symbolizer();
  ~Symbolizer();
  Symbolizer(const Symbolizer&) = delete;
  Symbolizer& operator=(const Symbolizer&) = delete;

  /// Symbols of the code `offset` bytes into the executable mapping of `library` (an absolute
  /// path; other names have no symbols). The reference lives as long as the symbolizer.
  const Symbols& Resolve(const std::string& library, std::uint64_t offset);

  /// Libraries that were asked for and could not be opened.
  std::vector<std::string> MissingFiles() const;

 private:
  class Module;
  std::map<std::string, std::unique_ptr<Module>> modules_;
};

}  // namespace memleak
