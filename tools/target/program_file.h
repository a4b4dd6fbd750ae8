// SPDX-License-Identifier: Apache-2.0
// The program that `run` starts. Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/target/elf_file.h"

namespace memleak {

/// A program that can be tracked.
struct TargetProgram {
  std::string path;        ///< the file to execute, as given or found in PATH
  std::string image_path;  ///< the ELF file that is loaded: the interpreter of a script
  ElfInfo image;
  bool is_script = false;
};

/// The path of `name`, which is searched in `search_path` (the syntax of PATH) if it has no slash.
/// Throws UserError unless it is an executable file.
std::string FindExecutable(const std::string& name, const std::string& search_path);

/// Finds `name` as FindExecutable does, follows "#!" lines and checks that the tracker can be
/// preloaded: a dynamic 64-bit ELF file of glibc for a supported machine, neither set-user-ID nor
/// with file capabilities. Throws UserError otherwise.
TargetProgram FindProgram(const std::string& name, const std::string& search_path);

/// The first of `candidates`, directories, that has the loader and the tracker for `machine`; empty
/// if there is none.
std::string FindTrackerLibraries(const std::vector<std::string>& candidates, std::uint16_t machine);

}  // namespace memleak
