// SPDX-License-Identifier: Apache-2.0
// status: the state of a process.
#include <algorithm>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/on.h"
#include "tools/commands/options.h"
#include "tools/target/inspect.h"
#include "tools/target/recording.h"
#include "tools/target/root_directory.h"
#include "tools/target/send_command.h"
#include "tools/target/site.h"
#include "tools/target/take_report.h"

namespace memleak {
namespace {

constexpr const char* kStatusHelp = R"(
Prints whether a process is tracked and what it records, according to its state
file: for each kind of memory whether it is on; the number of recorded blocks,
which the process counts now; how stacks are found, in how many frames; the
hooks in place; the latest commands; its root directory, its properties and its
report. A command is pending until the process calls an allocator function,
which starts the thread that carries out commands.

Example:
  memleak status 4711

Exit codes:
  0  tracked
  1  not tracked, or it takes no commands, with the reason
  2  error (see stderr))";

constexpr const char* kStatusDeviceHelp = R"(
Prints whether a process is tracked, the properties, and the report of this or
another process. The log shows whether it records: logcat -s MemLeak.Native.

Example:
  memleak status 4711

Exit codes:
  0  tracked
  1  not tracked, or the tracker does not catch signal 44
  2  error (see stderr))";

constexpr std::int64_t kNanoseconds = 1'000'000'000;

constexpr std::uint64_t kCommandsShown = 5;

std::string SinceText(std::int64_t since_ns) {
  const std::int64_t seconds = since_ns / kNanoseconds;
  return " since " + FormatClock(seconds) + " (" + FormatAge(std::time(nullptr) - seconds) + ")";
}

// A line for native recording, if it was ever on, and for each other kind that is on or paused.
std::string RecordingText(const StateFile& state) {
  std::string text;
  for (const protocol::Kind& kind : protocol::kKinds) {
    const std::int64_t since_ns = state->kinds[kind.type].since_ns;
    const protocol::Recording recording = state.RecordingOf(kind);
    // A report that keeps recording is a command of another kind, which switches that kind off.
    const bool skip = !kind.IsNative() && recording == protocol::Recording::kOff;
    if (since_ns == 0 || skip) continue;
    const char* word = recording == protocol::Recording::kOn       ? " on"
                       : recording == protocol::Recording::kPaused ? " paused"
                                                                   : " off";
    text += (text.empty() ? "" : "\n            ") + std::string(kind.name) + word +
            SinceText(since_ns);
  }
  if (!text.empty()) return text;
  return state->carried_out == 0 ? "off (never switched on)" : "off";
}

std::string MethodText(const StateFile& state) {
  if (state->depth == 0) return "not known before the first recording";
  return std::to_string(state->depth) + " frames by " +
         MethodName(static_cast<char>(state->unwind.load()));
}

std::string CommandsText(const StateFile& state) {
  const std::uint64_t done = state->carried_out;
  const std::uint64_t pending = state->sent - state->done;
  std::string text = FormatCount(done) + " carried out";
  if (pending > 0) {
    text += ", " + FormatCount(pending) + " pending";
    if (state->control_thread != protocol::ControlThread::kRunning) {
      text += " until it calls an allocator function";
    }
  }
  for (const CarriedOut& command : CommandsAfter(state, done - std::min(done, kCommandsShown))) {
    text += "\n            " + FormatClock(command.time_ns / kNanoseconds) + "  " +
            DescribeCommand(command.word);
  }
  return text;
}

// Whether frees are still noticed.
bool Records(const StateFile& state) {
  return std::any_of(
      std::begin(state->kinds), std::end(state->kinds),
      [](const protocol::KindState& kind) { return kind.recording != protocol::Recording::kOff; });
}

std::string RecordsText(const ProcessInfo& process) {
  const StateFile& state = *process.state;
  if (process.is_stopped) return "not counted: the process is stopped";
  if (!CountRecords(process)) return "not counted: no answer within 0.5 s";
  std::string text = FormatCount(state->records) + " live blocks";
  if (state->dropped != 0) {
    text += ", and " + FormatCount(state->dropped) + " that were not recorded: no memory";
  }
  return text;
}

void PrintState(const ProcessInfo& process) {
  const StateFile& state = *process.state;
  std::cout << "recording   " << RecordingText(state) << "\n"
            << "stacks      " << MethodText(state) << "\n";
  if (Records(state)) std::cout << "records     " << RecordsText(process) << "\n";
  PrintHooks("hooks       ", state);
  std::cout << "commands    " << CommandsText(state) << "\n";
}

std::string SettingsText(const ProcessInfo& process) {
  const StoredSettings stored = ReadSettings(process);
  if (stored.place.empty())
    return "none (backtrace type 0, size " + std::to_string(protocol::kDefaultDepth) + ")";
  const BacktraceSettings settings = ParseSettings(stored.text);
  const char type = settings.type.value_or(protocol::kUnwindFramePointers);
  return "backtrace type " + Printable({&type, 1}) + " (" + MethodName(type) + "), size " +
         std::to_string(settings.depth.value_or(protocol::kDefaultDepth)) + "  [" +
         Printable(stored.place) + "]";
}

std::string ReportText(const ProcessInfo& process) {
  const std::string path = process.ReportPath();
  const std::optional<FileState> file = StateOf(path);
  if (!file) return "none yet";
  const std::int64_t age = std::time(nullptr) - file->modified_ns / kNanoseconds;
  return process.Shown(path) + ", " + FormatBytes(static_cast<std::uint64_t>(file->size)) + ", " +
         FormatAge(age) + " old" + (EndsComplete(path) ? "" : ", incomplete");
}

// Whether the process takes commands, and if not, why.
std::string TrackedText(const ProcessInfo& process) {
  if (!process.has_tracker) return "no";
  if (process.IsDetached()) return "no, it was detached";
  if (process.problem)
    return "loaded, but it takes no commands: " + Printable(process.problem->what());
  if (process.is_emulated) return "yes (emulated: commands use signal 46)";
  if (!process.catches_signal) return "loaded, but signal 44 is not caught";
  if (process.state && (*process.state)->form == protocol::Form::kAttached) {
    return "yes, attached" + SinceText((*process.state)->start_ns);
  }
  return "yes";
}

int PrintStatus(const pid_t& pid) {
  const ProcessInfo process = InspectProcess(pid);
  std::cout << "process     " << process.Label() << ", " << Printable(process.executable)
            << (process.is_stopped ? ", stopped" : "") << "\n"
            << "tracked     " << TrackedText(process) << "\n";
  if (!process.has_tracker || process.problem || process.IsDetached()) return kExitNegative;
  const std::string& log = process.log;
  if (process.has_state_of_parent) {
    std::cout << "recording   as process " << (*process.state)->pid
              << " when it was forked; nothing else is known before the first command\n";
  } else if (process.state) {
    PrintState(process);
  } else {
    std::cout << "recording   unknown (see: " << log << ")\n";
  }
  std::cout << "root        " << process.Shown(process.root) << "\n"
            << "properties  " << SettingsText(process) << "\n"
            << "report      " << ReportText(process) << "\n";
  if (!log.empty()) std::cout << "log         " << Printable(log) << "\n";
  return process.is_emulated || process.catches_signal ? kExitOk : kExitNegative;
}

}  // namespace

void AddStatus(Program* program) {
  const char* help = program->IsDevice() ? kStatusDeviceHelp : kStatusHelp;
  const auto [command, pid] =
      program->AddCommand("status", "Show the state of a process", help, PrintStatus);
  AddPid(command, pid);
}

}  // namespace memleak
