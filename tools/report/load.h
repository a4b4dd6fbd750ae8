// SPDX-License-Identifier: Apache-2.0
// Reads a report or a profile in one pass, then resolves its frames library by library.
// Single-threaded.
#pragma once

#include <string>

#include "tools/report/model.h"
#include "tools/symbols/symbol_options.h"

namespace memleak {

/// Reads and symbolizes the report or profile at `path`. Throws as ReadReportFile, and UserError if
/// `options.skip` is invalid.
Profile LoadProfile(const std::string& path, const SymbolOptions& options);

}  // namespace memleak
