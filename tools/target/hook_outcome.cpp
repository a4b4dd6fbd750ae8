// SPDX-License-Identifier: Apache-2.0
// Watching a process after a command to hook.
#include "tools/target/hook_outcome.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <thread>

#include "protocol/protocol.h"
#include "tools/target/inspect.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr auto kPoll = milliseconds(20);
constexpr auto kPatience = milliseconds(3000);
constexpr auto kEmulatedPatience = milliseconds(8000);

// Why a pair cannot be hooked. The line about the pair follows.
constexpr std::string_view kReasons[] = {"no sharelib ",
                                         "GOT entry ",
                                         "unsafe_patch_relocation_address mprotect",
                                         "allocator_block mmap fail",
                                         "out of memory while hooking",
                                         "too many thread keys are in use to hook a function"};
// Not the messages about libraries with nothing to hook: every process has some.
constexpr std::string_view kPairFailed = "plt hook ";
constexpr std::string_view kOtherMessages[] = {
    protocol::kNothingHooked,    kPairFailed,
    "plt init error: ",          "load libfdtrack failed: ",
    "libfdtrack does not exist", "no EnableFdHook found",
    "no DisableFdHook found",    "no DumpFdleakStackToFile found"};

bool AnyHas(const std::vector<std::string>& lines, const std::string& text) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

// Reads the slots. Returns whether the whole plan is hooked.
bool ReadSlots(const ProcessInfo& process, const HookPlan& plan, const ProcessMemory& memory,
               HookOutcome* outcome) {
  outcome->slots_read = memory.IsOpen();
  if (!outcome->slots_read) return false;
  outcome->hooked = HookedPairs(process, plan, memory);
  return outcome->hooked.size() == plan.pairs.size();
}

// The result without an answer in the log.
HookResult Judge(const ProcessInfo& process, const HookOutcome& outcome, bool log_answers,
                 std::uint64_t trampolines_before) {
  if (!outcome.hooked.empty()) return HookResult::kHooked;
  if (outcome.slots_read || log_answers) return HookResult::kNothing;
  const std::uint64_t trampolines = TrampolineBytes(ParseMaps(ReadMaps(process.pid)));
  // A page has room for many hooks: the same size proves nothing.
  return trampolines > trampolines_before ? HookResult::kHooked : HookResult::kUnseen;
}

}  // namespace

std::vector<std::string> ErrorLines(const std::vector<std::string>& lines) {
  std::vector<std::string> complaints;
  for (const std::string& line : lines) {
    const auto add_if_any = [&](const auto& messages) {
      for (const std::string_view message : messages) {
        const std::size_t at = line.find(message);
        if (at == std::string::npos) continue;
        complaints.push_back(line.substr(at));
        return true;
      }
      return false;
    };
    if (!add_if_any(kReasons)) add_if_any(kOtherMessages);
  }
  return complaints;
}

std::vector<std::string> WithoutUnplanned(const std::vector<std::string>& complaints) {
  std::vector<std::string> rest;
  bool has_reason = false;
  for (const std::string& complaint : complaints) {
    const bool of_pair = complaint.starts_with(kPairFailed);
    if (!of_pair || has_reason) rest.push_back(complaint);
    has_reason =
        std::any_of(std::begin(kReasons), std::end(kReasons),
                    [&](std::string_view reason) { return complaint.starts_with(reason); });
  }
  return rest;
}

std::uint64_t TrampolineBytes(const std::vector<Mapping>& mappings) {
  std::uint64_t bytes = 0;
  for (const Mapping& mapping : mappings) {
    const bool anonymous = mapping.path.empty() || mapping.path.starts_with("[anon");
    if (mapping.executable && anonymous) bytes += mapping.end - mapping.start;
  }
  return bytes;
}

HookOutcome WaitForHooks(const ProcessInfo& process, const Kind& kind, const HookPlan& plan,
                         const LogTail& log, const ProcessMemory& memory,
                         std::uint64_t trampolines_before) {
  const auto deadline = steady_clock::now() + (process.is_emulated ? kEmulatedPatience : kPatience);
  HookOutcome outcome;
  while (true) {
    const std::vector<std::string> lines = log.Lines();
    const bool over = steady_clock::now() >= deadline;
    const bool said_on = AnyHas(lines, std::string(kind.switch_line) + "true");
    const bool said_nothing = AnyHas(lines, protocol::kNothingHooked);
    const bool all_slots = ReadSlots(process, plan, memory, &outcome);
    outcome.complaints = ErrorLines(lines);
    if (all_slots) outcome.complaints = WithoutUnplanned(outcome.complaints);
    if (said_nothing || said_on) {
      outcome.result = said_nothing ? HookResult::kNothing : HookResult::kHooked;
      return outcome;
    }
    // A readable log takes precedence.
    if (over || (all_slots && !log.IsReadable())) {
      outcome.result = Judge(process, outcome, !lines.empty(), trampolines_before);
      return outcome;
    }
    if (!IsAlive(process.pid)) {
      throw UserError("process " + process.Label() + " has ended", "start it again");
    }
    std::this_thread::sleep_for(kPoll);
  }
}

}  // namespace memleak
