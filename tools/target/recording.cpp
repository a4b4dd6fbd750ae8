// SPDX-License-Identifier: Apache-2.0
// Reads the state of recording. The process may change it at the same time.
#include "tools/target/recording.h"

#include <algorithm>
#include <sstream>

#include "tools/base/format.h"
#include "tools/base/names.h"

namespace memleak {
namespace {

using protocol::Recording;

struct Effect {
  std::uint64_t words;  // any of these
  const char* text;
};

// Most severe effect first.
std::vector<Effect> Effects() {
  Effect clear{protocol::kFdClear, "all records were dropped"};
  // These change the kind by which the tracker looks up blocks.
  Effect other{0, "a command for another kind of memory arrived"};
  for (const Kind& kind : protocol::kKinds) {
    clear.words |= kind.Clear();
    if (kind.IsNative()) continue;
    other.words |= kind.On() | (kind.always_selects ? kind.Pause() | kind.Report() : 0);
  }
  return {{protocol::kNative.Report(), "recording was stopped by a report"},
          clear,
          {protocol::kNative.Pause(), "recording was paused"},
          other};
}

// The first kind that is on or paused: native memory, or one of the others. Null if none is.
const Kind* Recorded(const StateFile& state, bool native) {
  for (const Kind& kind : protocol::kKinds) {
    if (kind.IsNative() == native && state.RecordingOf(kind) != Recording::kOff) return &kind;
  }
  return nullptr;
}

}  // namespace

std::string DescribeCommand(std::uint64_t word) {
  std::string names;
  const auto add = [&](std::uint64_t bit, const std::string& name) {
    if ((word & bit) != 0) names += (names.empty() ? "" : ", ") + name;
  };
  for (const Kind& kind : protocol::kKinds) {
    const std::string name = kind.name;
    add(kind.On(), name + " on");
    add(kind.Pause(), name + " pause");
    add(kind.Report(), kind.Report() == protocol::kReportKeepRecording
                           ? "report that keeps recording, or " + name + " report"
                           : name + " report");
    add(kind.Clear(), name + " clear");
  }
  add(protocol::kFdOn, "fd on");
  add(protocol::kFdOff, "fd off");
  add(protocol::kFdDump, "fd dump");
  add(protocol::kFdClear, "fd clear");
  add(protocol::kRunCallback4, "callback 4");
  add(protocol::kRunCallback5, "callback 5");
  std::ostringstream text;
  text << (names.empty() ? "nothing" : names) << " (0x" << std::hex << word << ")";
  return text.str();
}

std::string MethodName(char type) {
  if (type == protocol::kUnwindFramePointers) return "frame pointers";
  if (type == protocol::kUnwindTables) return "dwarf";
  return "invalid type '" + Printable({&type, 1}) + "'";
}

std::vector<CarriedOut> CommandsAfter(const StateFile& state, std::uint64_t after) {
  const std::uint64_t last = state->carried_out;
  const std::uint64_t oldest = last < protocol::kHistory ? 1 : last - protocol::kHistory + 1;
  std::vector<CarriedOut> commands;
  for (std::uint64_t number = std::max(after + 1, oldest); number <= last; ++number) {
    const protocol::PastCommand& past = state->history[number % protocol::kHistory];
    const CarriedOut command{number, past.time_ns, past.word};
    // A later command may have taken the entry meanwhile.
    if (past.number == number) commands.push_back(command);
  }
  return commands;
}

std::string FindInterference(const StateFile& state, std::uint64_t after) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const std::vector<Effect> effects = Effects();
  for (const CarriedOut& command : CommandsAfter(state, after)) {
    for (const Effect& effect : effects) {
      if ((command.word & effect.words) == 0) continue;
      return std::string(effect.text) + " (" + DescribeCommand(command.word) + " at " +
             FormatClock(command.time_ns / kSecond) + ")";
    }
  }
  return "";
}

void RefuseMixedKinds(const ProcessInfo& process, const Kind& wanted) {
  if (!process.state) return;
  const Kind* recorded = Recorded(*process.state, !wanted.IsNative());
  if (recorded == nullptr || Recorded(*process.state, wanted.IsNative()) != nullptr) return;
  const std::string kind = recorded->name;
  const bool is_on = process.state->RecordingOf(*recorded) == Recording::kOn;
  throw UserError(kind + " recording is " + (is_on ? "on" : "paused") + " in " + process.Label() +
                      ", and a command for " + wanted.name +
                      " memory would spoil its records; nothing was sent",
                  "first: memleak report " + std::to_string(process.pid) +
                      (recorded->IsNative() ? "" : " --kind " + kind));
}

std::vector<HookResult> HookResults(const StateFile& state) {
  const std::size_t count = std::min<std::size_t>(state->hook_states, protocol::kMaxHookStates);
  std::vector<HookResult> results;
  for (std::size_t i = 0; i < count; ++i) {
    const protocol::HookState& hook = state->hooks[i];
    results.push_back({{TextOf(hook.library), TextOf(hook.function)}, hook.hooks, hook.error});
  }
  return results;
}

std::vector<HookPair> HookedPairs(const StateFile& state) {
  std::vector<HookPair> hooked;
  for (const HookResult& result : HookResults(state)) {
    if (result.hooks > 0) hooked.push_back(result.pair);
  }
  return hooked;
}

}  // namespace memleak
