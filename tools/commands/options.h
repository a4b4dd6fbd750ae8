// SPDX-License-Identifier: Apache-2.0
// Options that several commands share. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/commands/command_line.h"
#include "tools/symbols/symbol_options.h"
#include "tools/target/kinds.h"

namespace memleak {

/// The argument PID.
void AddPid(CLI::App* command, pid_t* pid);

/// --kind: what is recorded.
void AddKind(CLI::App* command, const Kind** kind);

/// --kind, --lib, --func, --depth and --unwind.
void AddRecordingOptions(CLI::App* command, RecordingOptions* options);

/// --depth, with `summary` in the help.
void AddDepth(CLI::App* command, std::optional<std::uint32_t>* depth, const std::string& summary);

/// --timeout in seconds, with `summary` in the help.
void AddTimeout(CLI::App* command, std::uint32_t* timeout_s, const char* summary);

/// The argument REPORT.
void AddReportArgument(CLI::App* command, std::string* report);

/// --top, with `summary` in the help.
void AddTop(CLI::App* command, std::size_t* top, const char* summary);

/// --symbols, --sysroot, --skip and --debuginfod.
void AddSymbolOptions(CLI::App* command, SymbolOptions* symbols);

/// --old-symbols and --old-sysroot, for the earlier of two reports. They require the option `old`
/// unless it is null.
void AddOldSymbolOptions(CLI::App* command, SymbolOptions* symbols, CLI::Option* old);

}  // namespace memleak
