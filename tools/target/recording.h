// SPDX-License-Identifier: Apache-2.0
// What a process records and which commands it has carried out, according to its state file.
// Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/target/hook_targets.h"
#include "tools/target/kinds.h"
#include "tools/target/process_info.h"
#include "tools/target/state_file.h"

namespace memleak {

/// "native on, native clear (0x90)"; "nothing (0x0)".
std::string DescribeCommand(std::uint64_t word);

/// How stacks are found with the backtrace `type`, for messages: "frame pointers" or "dwarf".
std::string MethodName(char type);

/// A command that was carried out.
struct CarriedOut {
  std::uint64_t number = 0;  ///< counts from 1
  std::int64_t time_ns = 0;  ///< since 1970
  std::uint64_t word = 0;
};

/// The commands with numbers above `after`, oldest first, as far as the process keeps them.
std::vector<CarriedOut> CommandsAfter(const StateFile& state, std::uint64_t after);

/// Finds the first command with a number above `after` after which the native records are no longer
/// complete. Returns what it did and when, such as "recording was paused (native pause (0x20) at
/// 14:03:22)"; empty if there is none.
std::string FindInterference(const StateFile& state, std::uint64_t after);

/// Throws UserError, which names the command to give first, if a command for memory of kind
/// `wanted` would spoil what `process` records. The tracker looks up each block by the kind in the
/// latest command: native memory by its usable size, all other kinds by the size of the call. A
/// native command while a hooked kind is recorded or paused, or the reverse, makes the tracker miss
/// releases and may crash the process. Refuses nothing if both are recorded already: the user must
/// be able to stop each. Refuses nothing on devices.
void RefuseMixedKinds(const ProcessInfo& process, const Kind& wanted);

/// The result of the latest "on" for a function in a library.
struct HookResult {
  HookPair pair;
  std::uint32_t hooks = 0;  ///< in place; each "on" adds one, each report removes one
  int error = 0;            ///< of the latest "on"; 0 or an errno value
};

/// The results, in the order of the libraries and functions of the settings.
std::vector<HookResult> HookResults(const StateFile& state);

/// The pairs that have hooks, in the same order.
std::vector<HookPair> HookedPairs(const StateFile& state);

}  // namespace memleak
