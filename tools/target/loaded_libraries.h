// SPDX-License-Identifier: Apache-2.0
// The libraries of a running process as the tracker in it sees them: by the names they were loaded
// by, with the functions they import. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/files.h"
#include "tools/target/elf_file.h"
#include "tools/target/maps.h"
#include "tools/target/process_info.h"

namespace memleak {

/// The memory of a process, read through /proc/PID/mem. Needs permission to debug the process.
class ProcessMemory {
 public:
  explicit ProcessMemory(pid_t pid);

  /// Whether reading is permitted.
  bool IsOpen() const { return file_.IsOpen(); }
  /// The 64-bit word at `address`; nothing if it is unreadable.
  std::optional<std::uint64_t> Word(std::uint64_t address) const;
  /// Writes `bytes` to `address`, in a stopped process. Returns whether all were written.
  bool Write(std::uint64_t address, std::string_view bytes) const;
  /// The string at `address`, up to 4095 bytes.
  std::string Text(std::uint64_t address) const;

 private:
  Descriptor file_;
};

/// A library in a process.
struct LoadedLibrary {
  std::string name;  ///< last part of the name it was loaded by, as the tracker uses it
  std::string path;  ///< its file, symbolic links resolved
  std::uint64_t bias = 0;
  bool is_program = false;          ///< the program itself has no name
  bool is_shadowed = false;         ///< an earlier library with the same name hides it
  std::optional<DynamicFile> file;  ///< nothing if the file is no longer readable
};

/// All libraries of a process.
struct LoadedLibraries {
  std::vector<LoadedLibrary> libraries;  ///< in the dynamic linker's order, if known
  std::vector<Mapping> mappings;
};

/// The file of `mapping` for this controller, also if the process has another root directory or the
/// file was removed.
std::string FileOf(const ProcessInfo& process, const Mapping& mapping);

/// The machine whose code the process runs, under an emulator the guest's; 0 if unknown.
std::uint16_t MachineOf(const ProcessInfo& process);

/// Whether the tracker treats an object of this name as a library: it ends in ".so" or ".so" and a
/// version.
bool IsLibraryName(std::string_view name);

/// Reads the libraries of `process` and their imports of `functions`. Names come from the dynamic
/// linker's list if `memory` is readable. Otherwise they come from the files, which may differ: a
/// file can be loaded by the name of a link to it. Throws UserError if the process has ended.
LoadedLibraries ReadLoadedLibraries(const ProcessInfo& process, const ProcessMemory& memory,
                                    const std::vector<std::string>& functions);

}  // namespace memleak
