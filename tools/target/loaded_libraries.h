// The libraries of a running process as the tracker in it sees them: under the names by which they
// were loaded, with the functions they import. Called by the commands that deal with hooks;
// single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/target/elf_imports.h"
#include "tools/target/process_info.h"

namespace memleak {

/// One line of /proc/PID/maps.
struct Mapping {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  bool executable = false;
  bool deleted = false;  ///< the file is no longer there under its name
  std::string path;      ///< or "[...]"; empty when it has neither
  bool IsFile() const { return path.starts_with('/'); }
};

/// The lines of the text of /proc/PID/maps that are whole.
std::vector<Mapping> ParseMaps(std::string_view maps);

/// The memory of a process, read through /proc/PID/mem: that takes the right to debug it.
class ProcessMemory {
 public:
  explicit ProcessMemory(pid_t pid);
  ~ProcessMemory();
  ProcessMemory(const ProcessMemory&) = delete;
  ProcessMemory& operator=(const ProcessMemory&) = delete;

  /// Whether any of it may be read.
  bool IsOpen() const { return file_ >= 0; }
  /// The 64-bit word at `address`; nothing where there is no memory.
  std::optional<std::uint64_t> Word(std::uint64_t address) const;
  /// The text at `address`, cut after 4095 bytes.
  std::string Text(std::uint64_t address) const;

 private:
  int file_;
};

/// A library in a process.
struct LoadedLibrary {
  std::string name;  ///< the last part of the name it was loaded by; the tracker knows it by this
  std::string path;  ///< its file, symbolic links resolved
  std::uint64_t bias = 0;
  bool is_program = false;          ///< the program itself, which has no name
  bool is_shadowed = false;         ///< one before it has the same name: it cannot be reached
  std::optional<DynamicFile> file;  ///< nothing when the file cannot be read any more
};

/// All libraries of a process.
struct LoadedLibraries {
  std::vector<LoadedLibrary> libraries;  ///< in the order of the dynamic linker where it is known
  std::vector<Mapping> mappings;
};

/// The machine whose code the process runs: the guest's, under an emulator; 0 when unknown.
std::uint16_t MachineOf(const ProcessInfo& process);

/// Whether the tracker takes an object of this name for a library: it ends in ".so", or in ".so"
/// and a version.
bool IsLibraryName(std::string_view name);

/// Looks at `process`, at imports of `functions` in its libraries. Names come from the dynamic
/// linker's own list where `memory` can be read, else from the libraries' files, which may differ:
/// a file may be loaded by the name of any link to it. Throws UserError when the process is gone.
LoadedLibraries ReadLoadedLibraries(const ProcessInfo& process, const ProcessMemory& memory,
                                    const std::vector<std::string>& functions);

}  // namespace memleak
