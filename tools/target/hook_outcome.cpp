// Watching a process after it was told to hook.
#include "tools/target/hook_outcome.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <thread>

#include "tools/target/inspect.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr auto kPoll = milliseconds(20);
constexpr auto kPatience = milliseconds(3000);
constexpr auto kEmulatedPatience = milliseconds(8000);

bool AnyHas(const std::vector<std::string>& lines, const std::string& text) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

// Fills in the slots, and says whether all of the plan's are hooked.
bool LookAtSlots(const ProcessInfo& process, const HookPlan& plan, const ProcessMemory& memory,
                 HookOutcome* outcome) {
  outcome->slots_read = memory.IsOpen();
  if (!outcome->slots_read) return false;
  outcome->hooked = HookedPairs(process, plan, memory);
  return outcome->hooked.size() == plan.pairs.size();
}

// When the time is over and the log has not said it.
HookResult Judge(const ProcessInfo& process, const HookOutcome& outcome, bool log_answers,
                 std::uint64_t trampolines_before) {
  if (!outcome.hooked.empty()) return HookResult::kHooked;
  if (outcome.slots_read || log_answers) return HookResult::kNothing;
  const std::uint64_t trampolines = TrampolineBytes(ParseMaps(ReadMaps(process.pid)));
  // A page has room for many hooks, so that none was added proves nothing.
  return trampolines > trampolines_before ? HookResult::kHooked : HookResult::kUnseen;
}

}  // namespace

std::vector<std::string> Complaints(const std::vector<std::string>& lines) {
  // Not those of the index about libraries with nothing to hook: every process has some.
  constexpr std::string_view kMessages[] = {"all plt hook failed!",
                                            "plt hook ",
                                            "plt init error: ",
                                            "no sharelib ",
                                            "GOT entry ",
                                            "unsafe_patch_relocation_address mprotect",
                                            "allocator_block mmap fail",
                                            "out of memory while hooking",
                                            "too many thread keys are in use to hook a function",
                                            "load libfdtrack failed: ",
                                            "libfdtrack does not exist",
                                            "no EnableFdHook found",
                                            "no DisableFdHook found",
                                            "no DumpFdleakStackToFile found"};
  std::vector<std::string> complaints;
  for (const std::string& line : lines) {
    for (const std::string_view message : kMessages) {
      const std::size_t at = line.find(message);
      if (at == std::string::npos) continue;
      complaints.push_back(line.substr(at));
      break;
    }
  }
  return complaints;
}

std::vector<std::string> WithoutUnplanned(const std::vector<std::string>& complaints) {
  constexpr std::string_view kReasons[] = {"no sharelib ",
                                           "GOT entry ",
                                           "unsafe_patch_relocation_address mprotect",
                                           "allocator_block mmap fail",
                                           "out of memory while hooking",
                                           "too many thread keys are in use to hook a function"};
  std::vector<std::string> rest;
  bool has_reason = false;
  for (const std::string& complaint : complaints) {
    const bool of_pair = complaint.starts_with("plt hook ");
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

HookOutcome WaitForHooks(const ProcessInfo& process, const KindInfo& kind, const HookPlan& plan,
                         const LogTail& log, const ProcessMemory& memory,
                         std::uint64_t trampolines_before) {
  const auto deadline = steady_clock::now() + (process.is_emulated ? kEmulatedPatience : kPatience);
  HookOutcome outcome;
  while (true) {
    const std::vector<std::string> lines = log.Lines();
    const bool over = steady_clock::now() >= deadline;
    const bool said_on = AnyHas(lines, std::string(kind.state_line) + "true");
    const bool said_nothing = AnyHas(lines, "all plt hook failed!");
    const bool all_slots = LookAtSlots(process, plan, memory, &outcome);
    outcome.complaints = Complaints(lines);
    if (all_slots) outcome.complaints = WithoutUnplanned(outcome.complaints);
    if (said_nothing || said_on) {
      outcome.result = said_nothing ? HookResult::kNothing : HookResult::kHooked;
      return outcome;
    }
    // A log that can be read gets to say it.
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
