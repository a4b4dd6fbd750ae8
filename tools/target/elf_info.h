// What the controller must know of an ELF file: machine, width, static or not. Reads headers only.
// Single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace memleak {

/// The header fields that decide whether a program can be tracked.
struct ElfInfo {
  bool is_64_bit = false;
  bool is_little_endian = false;
  std::uint16_t machine = 0;  ///< EM_X86_64, EM_AARCH64, ...
  std::uint16_t type = 0;     ///< ET_EXEC, ET_DYN, ...
  /// Asks for a dynamic linker (PT_INTERP): without one nothing can be preloaded.
  bool has_interpreter = false;
};

/// Reads the headers of `path`; nothing when it cannot be read or is no whole ELF file.
std::optional<ElfInfo> ReadElf(const std::string& path);

/// "x86-64", "aarch64", or "machine N".
std::string MachineName(std::uint16_t machine);

/// The machine this controller was built for.
std::uint16_t OwnMachine();

}  // namespace memleak
