// Where the files of a library are: its own on this machine or in a copy of a device's, and the
// separate one that holds its debug information. Called by the symbolizer; single-threaded.
#pragma once

#include <elfutils/libdwfl.h>

#include <string>

#include "tools/symbols/symbol_options.h"

namespace memleak {

/// The file to read for the mapping `name`, empty when there is none: the name below the sysroot,
/// or itself without one; else the same path or just the file name in a symbol directory, which
/// come first with `dirs_first`. A file that was deleted while it was mapped is not looked for
/// under its old path on this machine, where another may stand by now. For "APK!/lib/x.so" the
/// library is looked for in the symbol directories.
std::string FindLibraryFile(const std::string& name, const SymbolOptions& options);

/// The build id of an open ELF file in lower-case hexadecimal; empty when it has none.
std::string BuildIdOf(Elf* elf);

/// Opens the debug file of the stripped library `elf`, which is mapped by `name` and read from
/// `file`: by build id and by debug link in the symbol directories and /usr/lib/debug, by debug
/// link beside `file`, by path and by file name in the symbol directories. One that belongs to
/// another build is left alone. Returns a file descriptor for the caller to close, or -1, and sets
/// `path`.
int OpenDebugFile(const std::string& name, const std::string& file, Elf* elf,
                  const SymbolOptions& options, std::string* path);

/// What to provide so that `name` has symbols: the debug file looked for when its build id is
/// known, else the file itself.
std::string MissingFileHint(const std::string& name, const std::string& build_id);

}  // namespace memleak
