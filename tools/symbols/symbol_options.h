// SPDX-License-Identifier: Apache-2.0
// Where to search for symbols, and which functions to leave out.
#pragma once

#include <string>
#include <vector>

namespace memleak {

/// Places to search in addition to the libraries themselves and /usr/lib/debug.
struct SymbolOptions {
  std::vector<std::string> symbol_dirs = {};  ///< of debug files or unstripped libraries
  std::string sysroot = {};                   ///< copy of a device's file system; may be empty
  bool dirs_first = false;  ///< prefer libraries in symbol_dirs to sysroot and machine
  bool debuginfod = false;  ///< also ask the servers in DEBUGINFOD_URLS
  /// Expression for functions that are left out at the inner end of stacks, in addition to the
  /// known wrappers of allocators; may be empty.
  std::string skip = {};
  bool progress = false;  ///< show a progress bar if it takes long
};

}  // namespace memleak
