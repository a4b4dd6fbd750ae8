// SPDX-License-Identifier: Apache-2.0
// The result of a command to hook. The tracker sends no reply, so this comes from its log, from the
// slots and from the maps, as far as they can be read. Called by `on` and `fd`; single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/target/hook_targets.h"
#include "tools/target/kinds.h"
#include "tools/target/log_tail.h"

namespace memleak {

enum class HookResult : std::uint8_t {
  kHooked,
  kNothing,  ///< the tracker hooked nothing
  kUnseen,   ///< neither log nor slots nor maps tell
};

struct HookOutcome {
  HookResult result = HookResult::kUnseen;
  bool slots_read = false;              ///< whether `hooked` means anything
  std::vector<HookPair> hooked;         ///< the pairs whose slots lead to a hook
  std::vector<std::string> complaints;  ///< messages of the tracker, without time and thread
};

/// The tracker's messages about failures in `lines` of its log.
std::vector<std::string> ErrorLines(const std::vector<std::string>& lines);

/// `complaints` without those about pairs outside the plan, for when the whole plan is hooked. The
/// tracker tries every function in every library, also functions that a library does not import.
std::vector<std::string> WithoutUnplanned(const std::vector<std::string>& complaints);

/// Bytes of executable memory outside of files, which grows with trampolines. Under an emulator
/// such memory is not executable.
std::uint64_t TrampolineBytes(const std::vector<Mapping>& mappings);

/// Waits for the result of the command to hook `plan` for `kind`, a few seconds at most. `log` and
/// `trampolines_before` are from before the command. Throws UserError if the process ends.
HookOutcome WaitForHooks(const ProcessInfo& process, const Kind& kind, const HookPlan& plan,
                         const LogTail& log, const ProcessMemory& memory,
                         std::uint64_t trampolines_before);

}  // namespace memleak
