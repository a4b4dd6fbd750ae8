// SPDX-License-Identifier: Apache-2.0
// Finds the files of a library: its own, on this machine or in a copy of a device's files, and the
// separate one with its debug information. Single-threaded.
#pragma once

#include <elfutils/libdwfl.h>

#include <string>

#include "tools/symbols/symbol_options.h"

namespace memleak {

/// The file to read for the mapping `name`; empty if there is none. Searches the sysroot, or this
/// machine without one, then each symbol directory for the whole path and for the file name. With
/// `dirs_first`, the symbol directories come first. A file that was deleted while it was mapped is
/// not searched for on this machine, which may have another one there now. For "APK!/lib/x.so",
/// only the symbol directories are searched.
std::string FindLibraryFile(const std::string& name, const SymbolOptions& options);

/// libdwfl's search for debug files, with the symbol directories before /usr/lib/debug. Files of
/// another build are rejected by build id or, without one, by the checksum of the debug link.
/// Outlives the sessions that use it.
class DebugSearch {
 public:
  explicit DebugSearch(const SymbolOptions& options);
  DebugSearch(const DebugSearch&) = delete;
  DebugSearch& operator=(const DebugSearch&) = delete;

  const Dwfl_Callbacks* Callbacks() const { return &callbacks_; }

 private:
  std::string path_;
  char* path_start_;
  Dwfl_Callbacks callbacks_;
};

/// The build id of an open ELF file in lower-case hexadecimal; empty if it has none.
std::string BuildIdOf(Elf* elf);

/// The file that would provide symbols for `name`: its debug file if the build id is known, else
/// the file itself.
std::string MissingFileHint(const std::string& name, const std::string& build_id);

}  // namespace memleak
