// SPDX-License-Identifier: Apache-2.0
// Command words in the tracker's log, and hooked slots.
#include "tools/target/interference.h"

#include <charconv>
#include <cstdint>
#include <ctime>
#include <optional>
#include <sstream>
#include <string_view>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/target/hook_targets.h"
#include "tools/target/log_tail.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

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

// A line starts with seconds since the epoch.
std::string TimeOf(const std::string& line) {
  std::time_t time = 0;
  std::from_chars(line.data(), line.data() + line.size(), time);
  return time == 0 ? "" : " at " + FormatClock(time);
}

/// A recording that is on or paused.
struct Recorded {
  const Kind* kind = &protocol::kNative;
  const char* state = "";  // follows the kind's name in messages
};

std::optional<Recorded> RecordedNatively(const ProcessInfo& process) {
  const std::optional<std::string> log = OwnLog(process);
  const Recording state = log ? RecordingFromLog(*log) : Recording::kUnknown;
  if (state == Recording::kOn) return Recorded{&protocol::kNative, " recording is on"};
  if (state == Recording::kPaused) return Recorded{&protocol::kNative, " recording is paused"};
  return std::nullopt;
}

std::optional<Recorded> RecordedByHooks(const ProcessInfo& process) {
  if (const std::optional<std::string> log = OwnLog(process)) {
    const std::string state = HooksFromLog(*log);
    for (const Kind& kind : protocol::kKinds) {
      if (state == std::string(kind.name) + " on") return Recorded{&kind, " recording is on"};
      if (state == std::string(kind.name) + " paused") {
        return Recorded{&kind, " recording is paused"};
      }
    }
    // A forked child inherits the state of its parent, whose lines are in the same log: the slots
    // decide.
    const bool others = !HooksFromLog(ReadTextFile(process.log).value_or("")).empty();
    if (!state.empty() || !others) return std::nullopt;
  }
  const ProcessMemory memory(process.pid);
  if (!memory.IsOpen()) return std::nullopt;
  const std::vector<HookPair> hooked = AllHookedPairs(process, memory);
  if (hooked.empty()) return std::nullopt;
  const auto& [library, function] = hooked.front();
  for (const Kind& kind : protocol::kKinds) {
    if (kind.Records(function, library)) return Recorded{&kind, " hooks are in place"};
  }
  return std::nullopt;
}

}  // namespace

void RefuseMixedKinds(const ProcessInfo& process, const Kind& wanted) {
  const auto find = [&](bool native) {
    return native ? RecordedNatively(process) : RecordedByHooks(process);
  };
  const bool native = wanted.IsNative();
  const std::optional<Recorded> recorded = find(!native);
  // If both are recorded, the records are spoiled already, and the user must be able to stop each.
  if (!recorded || find(native)) return;
  const std::string kind = recorded->kind->name;
  throw UserError(kind + recorded->state + " in " + process.Label() + ", and a command for " +
                      wanted.name + " memory would spoil its records; nothing was sent",
                  "first: memleak report " + std::to_string(process.pid) +
                      (recorded->kind->IsNative() ? "" : " --kind " + kind));
}

std::string FindInterference(const std::vector<std::string>& lines) {
  const std::vector<Effect> effects = Effects();
  for (const std::string& line : lines) {
    const std::uint64_t word = ReceivedWord(line);
    for (const Effect& effect : effects) {
      if ((word & effect.words) == 0) continue;
      std::ostringstream text;
      text << effect.text << " (command 0x" << std::hex << word << TimeOf(line) << ")";
      return text.str();
    }
  }
  return "";
}

Recording RecordingOf(const ProcessInfo& process) {
  const std::optional<std::string> own = OwnLog(process);
  if (!own) return Recording::kUnknown;
  const Recording state = RecordingFromLog(*own);
  const bool shared = state == Recording::kNever &&
                      RecordingFromLog(ReadTextFile(process.log).value_or("")) != state;
  return shared ? Recording::kUnknown : state;
}

}  // namespace memleak
