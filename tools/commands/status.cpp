// SPDX-License-Identifier: Apache-2.0
// status: the state of a process.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/options.h"
#include "tools/target/inspect.h"
#include "tools/target/interference.h"
#include "tools/target/log_tail.h"
#include "tools/target/report_file.h"
#include "tools/target/root_directory.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr const char* kStatusHelp = R"(
Prints whether a process is tracked and records (according to its log), its
root directory, its properties and its report.

Example:
  memleak status 4711

Exit codes:
  0  tracked
  1  not tracked, or the tracker does not catch signal 44
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

// Why ReadTextFile failed.
std::string ReadFailure(const std::string& path) {
  return access(path.c_str(), R_OK) != 0 ? std::strerror(errno) : "not a plain file";
}

std::string UnknownRecording(const ProcessInfo& process) {
  std::string text = "unknown" + WhyUnknown(process);
  if (process.log.empty()) return text;
  return text + " (its log cannot be read: " + ReadFailure(process.log) + ")";
}

std::string RecordingText(const ProcessInfo& process) {
  if (!OwnLog(process)) return UnknownRecording(process);
  switch (RecordingOf(process)) {
    case Recording::kOn:
      return "on";
    case Recording::kPaused:
      return "paused";
    case Recording::kStopped:
      return "off (stopped by a report)";
    case Recording::kNever:
      return "off (never switched on)";
    case Recording::kUnknown:
      break;
  }
  return "unknown";
}

// The state of the hooked kinds according to the log; empty if the log does not mention them.
std::string HooksText(const ProcessInfo& process) {
  const std::optional<std::string> log = OwnLog(process);
  return log ? HooksFromLog(*log) : "";
}

std::string SettingsText(const ProcessInfo& process) {
  const StoredSettings stored = ReadSettings(process);
  if (stored.place.empty())
    return "none (backtrace type 0, size " + std::to_string(protocol::kDefaultDepth) + ")";
  const BacktraceSettings settings = ParseSettings(stored.text);
  const std::string type(1, settings.type.value_or(protocol::kUnwindFramePointers));
  const char* method = type[0] == protocol::kUnwindFramePointers ? " (frame pointers)"
                       : type[0] == protocol::kUnwindTables      ? " (dwarf)"
                                                                 : " (invalid)";
  return "backtrace type " + Printable(type) + method + ", size " +
         std::to_string(settings.depth.value_or(protocol::kDefaultDepth)) + "  [" +
         Printable(stored.place) + "]";
}

std::string ReportText(const std::string& path) {
  const std::optional<FileState> state = StateOf(path);
  if (!state) return "none yet";
  const std::int64_t age = std::time(nullptr) - state->modified_ns / kNanoseconds;
  return Printable(path) + " (" + FormatBytes(static_cast<std::uint64_t>(state->size)) + ", " +
         FormatAge(age) + " old" + (EndsComplete(path) ? ")" : ", incomplete)");
}

// Whether the process would receive a command. The signal mask of an emulator proves nothing.
bool TakesCommands(const ProcessInfo& process) {
  return process.has_tracker && (process.is_emulated || process.catches_signal);
}

std::string SignalText(const ProcessInfo& process) {
  if (!process.has_tracker) return "no";
  if (process.is_emulated) return "yes (emulated: commands use signal 46)";
  return process.catches_signal ? "yes" : "loaded, but signal 44 is not caught";
}

int PrintStatus(const pid_t& pid) {
  const ProcessInfo process = InspectProcess(pid);
  std::cout << "process     " << process.Label() << ", " << Printable(process.executable) << "\n"
            << "tracked     " << SignalText(process) << "\n";
  if (!process.has_tracker) return kExitNegative;
  std::cout << "recording   " << RecordingText(process) << "\n";
  const std::string hooks = HooksText(process);
  if (!hooks.empty()) std::cout << "hooks       " << hooks << "\n";
  std::cout << "root        " << Printable(process.root) << "\n"
            << "properties  " << SettingsText(process) << "\n"
            << "report      " << ReportText(process.ReportPath()) << "\n";
  const std::string log = LogPlace(process);
  if (!log.empty()) std::cout << "log         " << Printable(log) << "\n";
  return TakesCommands(process) ? kExitOk : kExitNegative;
}

}  // namespace

void AddStatus(Program* program) {
  const char* help = program->IsDevice() ? kStatusDeviceHelp : kStatusHelp;
  const auto [command, pid] =
      program->AddCommand("status", "Show the state of a process", help, PrintStatus);
  AddPid(command, pid);
}

}  // namespace memleak
