// Where to look for symbols. Filled by the commands, read by the symbolizer.
#pragma once

#include <string>
#include <vector>

namespace memleak {

/// Where symbols are looked for, beside the libraries themselves and /usr/lib/debug.
struct SymbolOptions {
  std::vector<std::string> symbol_dirs =
      {};                    ///< directories of debug files or unstripped libraries
  std::string sysroot = {};  ///< a device's files, under the paths that they have there; or empty
  bool dirs_first = false;   ///< libraries in symbol_dirs stand for those of sysroot or machine
  bool debuginfod = false;   ///< ask the servers in DEBUGINFOD_URLS too
  bool progress = false;     ///< show on a terminal how far it is when it takes long
};

/// Where the earlier of two reports finds symbols, if elsewhere than the later one.
struct OldSymbolOptions {
  std::vector<std::string> symbol_dirs = {};
  std::string sysroot = {};
};

/// `options` for the earlier report: what `old` says stands in their place. Libraries in its
/// directories are the ones of that time, whatever this machine has under their paths by now.
inline SymbolOptions ForOld(SymbolOptions options, const OldSymbolOptions& old) {
  if (!old.sysroot.empty()) options.sysroot = old.sysroot;
  if (!old.symbol_dirs.empty()) options.symbol_dirs = old.symbol_dirs;
  options.dirs_first = !old.symbol_dirs.empty() && old.sysroot.empty();
  return options;
}

}  // namespace memleak
