// Which functions a shared library imports, and through which slots: read from its file, for the
// commands that say what can be hooked. Reads files of any supported machine, so a native
// controller can look at an emulated process. Single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace memleak {

/// One slot through which a library reaches a function.
struct Import {
  std::string function;
  std::uint64_t slot = 0;  ///< address as in the file, without the load bias
  /// Called through the procedure linkage table. Otherwise the slot only holds the address
  /// (-fno-plt, or the address is taken), and the tracker does not look at it.
  bool jump_slot = false;
  bool defined_here = false;  ///< the library has a function of that name itself
};

/// What the dynamic section of a file tells.
struct DynamicFile {
  std::uint16_t machine = 0;
  std::string soname;                        ///< empty when it has none
  std::uint64_t first_offset = 0;            ///< of the first loaded segment, cut to a page
  std::uint64_t first_address = 0;           ///< the same segment's address, cut to a page
  std::optional<std::uint64_t> debug_entry;  ///< address of DT_DEBUG's value; only programs have it
  std::vector<Import> imports;               ///< of the functions asked for, in relocation order
};

/// Reads `path`, looking for imports of `functions`. Nothing when it cannot be read or is no 64-bit
/// ELF file with a dynamic section; tables that lie outside a damaged file count as empty.
std::optional<DynamicFile> ReadDynamicFile(const std::string& path,
                                           const std::vector<std::string>& functions);

}  // namespace memleak
