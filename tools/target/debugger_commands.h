// SPDX-License-Identifier: Apache-2.0
// The debuggers that are supported. Single-threaded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tools/target/debugger.h"

namespace memleak {

/// Starts gdb, or lldb if gdb is missing, and reads the program of process `pid`, which runs on.
/// Throws UserError if neither is installed or it does not start.
std::unique_ptr<Debugger> StartDebugger(pid_t pid);

/// Starts the debugger whose program is `path`. Throws UserError.
std::unique_ptr<Debugger> StartGdb(const std::string& path, pid_t pid);
std::unique_ptr<Debugger> StartLldb(const std::string& path, pid_t pid);

/// The registers of StoppedThread by name.
const std::vector<std::string>& RegisterNames();

/// How long a debugger gets to read a large program on a busy machine.
inline constexpr std::chrono::milliseconds kStartTimeout(60'000);

}  // namespace memleak
