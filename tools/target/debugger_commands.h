// SPDX-License-Identifier: Apache-2.0
// The debuggers that are supported. Single-threaded.
#pragma once

#include <sys/types.h>

#include <memory>

#include "tools/target/debugger.h"

namespace memleak {

/// Starts gdb, or lldb if gdb is missing, and reads the program of process `pid`, which runs on.
/// Throws UserError if neither is installed or it does not start.
std::unique_ptr<Debugger> StartDebugger(pid_t pid);

}  // namespace memleak
