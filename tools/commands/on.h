// SPDX-License-Identifier: Apache-2.0
// Recording and its hooks, for `on`, `report`, `status` and `watch`. Single-threaded.
#pragma once

#include <sys/types.h>

#include <iosfwd>
#include <vector>

#include "tools/commands/command_line.h"
#include "tools/target/hook_targets.h"
#include "tools/target/kinds.h"
#include "tools/target/process_info.h"

namespace memleak {

struct OnOptions : RecordingOptions {
  pid_t pid = 0;
  bool keep = false;  ///< keep earlier records
};

/// Adds all options of `on`, without the argument PID.
void AddOnOptions(CLI::App* command, OnOptions* options);

/// Starts recording, prints what is recorded, and returns the exit code. Throws UserError.
int StartRecording(const OnOptions& options);

/// Prints one line for each library of `pairs`, which are sorted by library: `what`, the library
/// and its functions.
void PrintPairs(const char* what, const std::vector<HookPair>& pairs, std::ostream& out);

/// Prints the pairs that have hooks according to `state` with PrintPairs, and whether there may be
/// more.
void PrintHooks(const char* what, const StateFile& state);

/// Prints what is still hooked after a report of a hooked kind. Nothing on devices.
void PrintStillHooked(const ProcessInfo& process);

}  // namespace memleak
