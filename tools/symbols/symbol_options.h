// SPDX-License-Identifier: Apache-2.0
// Where to search for symbols.
#pragma once

#include <string>
#include <vector>

namespace memleak {

/// Places to search in addition to the libraries themselves and /usr/lib/debug.
struct SymbolOptions {
  std::vector<std::string> symbol_dirs =
      {};                    ///< directories of debug files or unstripped libraries
  std::string sysroot = {};  ///< copy of a device's file system; may be empty
  bool dirs_first = false;   ///< prefer libraries in symbol_dirs to sysroot and machine
  bool debuginfod = false;   ///< also ask the servers in DEBUGINFOD_URLS
  bool progress = false;     ///< show a progress bar if it takes long
};

/// Places for the earlier of two reports, if they differ from those for the later one.
struct OldSymbolOptions {
  std::vector<std::string> symbol_dirs = {};
  std::string sysroot = {};
};

/// `options` for the earlier report: what is set in `old` replaces them. Its directories have the
/// libraries of that time and are preferred to what this machine has now.
inline SymbolOptions ForOld(SymbolOptions options, const OldSymbolOptions& old) {
  if (!old.sysroot.empty()) options.sysroot = old.sysroot;
  if (!old.symbol_dirs.empty()) options.symbol_dirs = old.symbol_dirs;
  options.dirs_first = !old.symbol_dirs.empty() && old.sysroot.empty();
  return options;
}

}  // namespace memleak
