// SPDX-License-Identifier: Apache-2.0
// Reads from ELF files whether a program can be tracked, and through which slots a library calls
// functions. Reads the files of all supported machines, so a native controller can inspect emulated
// processes. Uses no ELF library, because devices have none. Single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace memleak {

/// The header fields that decide whether a program can be tracked.
struct ElfInfo {
  bool is_64_bit = false;
  bool is_little_endian = false;
  std::uint16_t machine = 0;  ///< EM_X86_64, EM_AARCH64, ...
  std::uint16_t type = 0;     ///< ET_EXEC, ET_DYN, ...
  std::string interpreter;    ///< path of its dynamic linker; empty: nothing can be preloaded
};

/// Reads the headers of `path`. Returns nothing if it is unreadable or not a whole ELF file.
std::optional<ElfInfo> ReadElf(const std::string& path);

/// "x86-64", "aarch64", or "machine N".
std::string MachineName(std::uint16_t machine);

/// The machine that this controller was built for.
std::uint16_t OwnMachine();

/// A slot through which a library calls a function.
struct Import {
  std::string function;
  std::uint64_t slot = 0;  ///< address in the file, without the load bias
  /// The slot belongs to the procedure linkage table. The tracker ignores other slots, which hold
  /// an address only (-fno-plt, or the address of the function is taken).
  bool jump_slot = false;
  bool defined_here = false;  ///< the library itself has a function of that name
};

/// The dynamic section of a file.
struct DynamicFile {
  std::uint16_t machine = 0;
  std::string soname;                        ///< empty if it has none
  std::uint64_t first_offset = 0;            ///< of the first loaded segment, rounded to its page
  std::uint64_t first_address = 0;           ///< address of that segment, rounded likewise
  std::optional<std::uint64_t> debug_entry;  ///< address of DT_DEBUG's value; programs only
  std::vector<Import> imports;               ///< of the wanted functions, in relocation order
};

/// Reads `path` and finds its imports of `functions`. Returns nothing if it is unreadable or not a
/// 64-bit ELF file with a dynamic section. Tables outside a damaged file count as empty.
std::optional<DynamicFile> ReadDynamicFile(const std::string& path,
                                           const std::vector<std::string>& functions);

}  // namespace memleak
