// SPDX-License-Identifier: Apache-2.0
// Options that several commands share. Single-threaded.
#pragma once

#include <CLI/CLI.hpp>

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/target/kinds.h"

namespace memleak {

/// The argument PID.
void AddPid(CLI::App* command, pid_t* pid);

/// --kind: what is recorded.
void AddKind(CLI::App* command, const Kind** kind);

/// --lib and --func: lists of names, separated by commas.
void AddHookNames(CLI::App* command, std::string* libraries, std::string* functions);

/// --depth, with `summary` in the help.
void AddDepth(CLI::App* command, std::optional<std::uint32_t>* depth, const char* summary);

/// --depth and --unwind.
void AddBacktraceOptions(CLI::App* command, std::optional<std::uint32_t>* depth,
                         std::optional<char>* type);

/// --timeout in seconds, with `summary` in the help.
void AddTimeout(CLI::App* command, std::uint32_t* timeout_s, const char* summary);

}  // namespace memleak
