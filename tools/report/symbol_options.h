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
  bool progress = false;     ///< show on a terminal how far it is when it takes long
};

}  // namespace memleak
