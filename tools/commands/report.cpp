// report and status: what asks a process.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <iostream>

#include "tools/base/control.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/commands.h"
#include "tools/report/report_parser.h"
#include "tools/target/interference.h"
#include "tools/target/log_tail.h"
#include "tools/target/process_info.h"
#include "tools/target/report_wait.h"
#include "tools/target/root_directory.h"
#include "tools/target/site.h"
#include "tools/target/take_report.h"
#include "tools/view/show.h"

namespace memleak {
namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

// Why ReadTextFile gave nothing.
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

// What the log tells of the kinds that are recorded through hooks; empty when nothing.
std::string HooksText(const ProcessInfo& process) {
  const std::optional<std::string> log = OwnLog(process);
  return log ? HooksFromLog(*log) : "";
}

std::string SettingsText(const ProcessInfo& process) {
  const StoredSettings stored = ReadSettings(process);
  if (stored.place.empty())
    return "none (backtrace type 0, size " + std::to_string(kDefaultDepth) + ")";
  const BacktraceSettings settings = ParseSettings(stored.text);
  const std::string type(1, settings.type.value_or(kUnwindFramePointers));
  const char* method = type[0] == kUnwindFramePointers ? " (frame pointers)"
                       : type[0] == kUnwindTables      ? " (dwarf)"
                                                       : " (invalid)";
  return "backtrace type " + Printable(type) + method + ", size " +
         std::to_string(settings.depth.value_or(kDefaultDepth)) + "  [" + Printable(stored.place) +
         "]";
}

std::string ReportText(const std::string& path) {
  const std::optional<FileState> state = StateOf(path);
  if (!state) return "none yet";
  const std::int64_t age = std::time(nullptr) - state->modified_ns / kNanoseconds;
  return Printable(path) + " (" + FormatBytes(static_cast<std::uint64_t>(state->size)) + ", " +
         FormatAge(age) + " old" + (EndsComplete(path) ? ")" : ", incomplete)");
}

// Whether a command would be received; the emulator's mask proves nothing.
bool TakesCommands(const ProcessInfo& process) {
  return process.has_tracker && (process.is_emulated || process.catches_signal);
}

std::string SignalText(const ProcessInfo& process) {
  if (!process.has_tracker) return "no";
  if (process.is_emulated) return "yes (emulated: commands go by signal 46)";
  return process.catches_signal ? "yes" : "loaded, but signal 44 is not caught";
}

}  // namespace

int ReportCommand(const ReportOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid, kStartPatienceMs);
  RefuseBeside(process, options.kind);
  const std::uint64_t word = options.keep_recording ? kReportGoingOn : InfoOf(options.kind).report;
  const std::chrono::milliseconds took =
      TakeReport(process, word, options.timeout_s, OldReport::kKeepBeside);
  const std::string path = process.ReportPath();

  ReportHeader header;
  ReadReportFile(path, {}, &header);
  std::cout << "report  " << Printable(path) << "\n"
            << "groups  " << FormatCount(header.groups);
  if (header.listed < header.groups) {
    std::cout << " (the largest " << header.listed << " are listed)";
  }
  if (header.groups == 0) std::cout << "\n        " << kNothingHeld;
  std::cout << "\nbytes   " << FormatCount(header.total_bytes) << " ("
            << FormatBytes(header.total_bytes) << ")\n"
            << "took    " << FormatDuration(took) << "\n";
  const std::string fetch = FetchCommand(path);
  if (!fetch.empty()) std::cout << "fetch   " << Printable(fetch) << "\n";
  if (options.kind != Kind::kNative) PrintStillHooked(process);
  if (options.keep_recording) std::cout << "        recording was not touched\n";
  return kExitOk;
}

int StatusCommand(pid_t pid) {
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

}  // namespace memleak
