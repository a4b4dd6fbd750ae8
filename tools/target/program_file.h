// The program that `run` is to start: found, followed through scripts, and checked for whether the
// tracker can be preloaded. Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/target/elf_info.h"

namespace memleak {

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
