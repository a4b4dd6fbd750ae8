// What the controller must know of an ELF file before it runs or looks for one: machine, width,
// static or not. Reads headers only. Single-threaded.
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
  /// Asks for a dynamic linker (PT_INTERP): without one nothing can be preloaded.
  bool has_interpreter = false;
};

/// Reads the headers of `path`; nothing when it cannot be read or is no whole ELF file.
std::optional<ElfInfo> ReadElf(const std::string& path);

/// "x86-64", "aarch64", or "machine N".
std::string MachineName(std::uint16_t machine);

/// The machine this controller was built for.
std::uint16_t OwnMachine();

/// A program as it will be run.
struct Program {
  std::string path;        ///< what is executed: the file as given or found in PATH
  std::string image_path;  ///< the ELF file that will be loaded: the interpreter of a script
  ElfInfo image;
  bool is_script = false;
};

/// The path of `name` (searched in `search_path`, PATH's syntax, when it has no slash). Throws
/// UserError unless it is a file that may be executed.
std::string FindExecutable(const std::string& name, const std::string& search_path);

/// Finds `name` as FindExecutable does, follows "#!" lines
/// and checks that the tracker can be preloaded: executable, ELF, 64-bit, a known machine, dynamic,
/// neither set-user-ID nor with file capabilities. Throws UserError for anything else.
Program FindProgram(const std::string& name, const std::string& search_path);

/// The directory among `candidates` that holds the loader and the tracker for `machine`; empty when
/// none does.
std::string FindTrackerLibraries(const std::vector<std::string>& candidates, std::uint16_t machine);

}  // namespace memleak
