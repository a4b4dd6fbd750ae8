// What came of a command to hook. Nothing is sent back by the tracker, so this is put together from
// its log, from the slots and from the maps, whichever can be read. Called by `on`;
// single-threaded.
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
  kUnseen,   ///< no log, and neither slots nor maps tell
};

struct HookOutcome {
  HookResult result = HookResult::kUnseen;
  bool slots_read = false;              ///< whether `hooked` means anything
  std::vector<HookPair> hooked;         ///< the pairs whose slots lead to a hook
  std::vector<std::string> complaints;  ///< the tracker's own words, without time and place
};

/// The tracker's messages about failures in `lines` of its log.
std::vector<std::string> Complaints(const std::vector<std::string>& lines);

/// `complaints` without those about pairs outside the plan. The settings name libraries and
/// functions apart, so the tracker also tries functions that a library does not import. For when
/// all that was planned is hooked.
std::vector<std::string> WithoutUnplanned(const std::vector<std::string>& complaints);

/// Bytes of executable memory that belongs to no file; grows when trampolines are made. Not under
/// an emulator, which executes nothing itself.
std::uint64_t TrampolineBytes(const std::vector<Mapping>& mappings);

/// Waits until it is clear what came of the command to hook `plan` for `kind`, a few seconds at
/// most. `log` and `trampolines_before` are from before the command. Throws UserError when the
/// process ends.
HookOutcome WaitForHooks(const ProcessInfo& process, const KindInfo& kind, const HookPlan& plan,
                         const LogTail& log, const ProcessMemory& memory,
                         std::uint64_t trampolines_before);

}  // namespace memleak
