// SPDX-License-Identifier: Apache-2.0
// Options of the commands that read reports. Single-threaded.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/symbols/symbol_options.h"

namespace memleak {

/// The argument REPORT.
void AddReportArgument(CLI::App* command, std::string* report);

/// --top, with `summary` in the help.
void AddTop(CLI::App* command, std::optional<std::uint32_t>* top, const char* summary);

/// --symbols, --sysroot and --debuginfod.
void AddSymbolOptions(CLI::App* command, SymbolOptions* symbols);

/// --old-symbols and --old-sysroot, for the earlier of two reports. They require the option `old`
/// unless it is null.
void AddOldSymbolOptions(CLI::App* command, OldSymbolOptions* symbols, CLI::Option* old);

}  // namespace memleak
