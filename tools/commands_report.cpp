// report, status and show: what asks.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>

#include "tools/commands.h"
#include "tools/control.h"
#include "tools/format.h"
#include "tools/process_info.h"
#include "tools/report_parser.h"
#include "tools/report_wait.h"
#include "tools/root_directory.h"
#include "tools/show.h"
#include "tools/signal_sender.h"
#include "tools/symbolizer.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::int64_t kNanoseconds = 1'000'000'000;
constexpr std::size_t kDamagedLinesShown = 5;

std::string FormatDuration(milliseconds duration) {
  const auto tenths = duration.count() / 100;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

/// A line on the terminal that is rewritten while waiting; nothing where no person looks.
class Progress {
 public:
  explicit Progress(std::string label)
      : label_(std::move(label)), enabled_(isatty(STDERR_FILENO) == 1) {}
  ~Progress() {
    if (printed_) std::cerr << "\r\033[K" << std::flush;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Update(milliseconds waited, std::int64_t bytes) {
    if (!enabled_) return;
    printed_ = true;
    std::cerr << "\r\033[K" << label_ << "  " << FormatDuration(waited);
    if (bytes > 0)
      std::cerr << ", " << FormatBytes(static_cast<std::uint64_t>(bytes)) << " written";
    std::cerr << std::flush;
  }

 private:
  std::string label_;
  bool enabled_;
  bool printed_ = false;
};

void CheckResult(WaitResult result, const ProcessInfo& process, const std::string& path,
                 std::uint32_t timeout_s) {
  if (result == WaitResult::kProcessEnded) {
    throw UserError("process " + process.Label() + " ended before its report was complete: " + path,
                    "start it with: memleak run --report-at-exit");
  }
  if (result == WaitResult::kTimeout) {
    throw UserError("no complete report after " + std::to_string(timeout_s) + " s: " + path,
                    "wait longer with --timeout, or see whether the process may write there");
  }
}

// Why ReadTextFile gave nothing.
std::string ReadFailure(const std::string& path) {
  return access(path.c_str(), R_OK) != 0 ? std::strerror(errno) : "not a plain file";
}

std::string UnknownRecording(const ProcessInfo& process) {
  std::string text = "unknown";
  if (process.environment.contains(kStartVariable)) text += ", on when it was started";
  if (!process.log.empty()) {
    return text + " (its log cannot be read: " + ReadFailure(process.log) + ")";
  }
  const auto log = process.environment.find(kLogVariable);
  return text + (log != process.environment.end() && !log->second.empty()
                     ? " (its log goes to its error output)"
                     : " (no log; memleak run --log FILE makes one)");
}

std::string RecordingText(const ProcessInfo& process) {
  const std::optional<std::string> log =
      process.log.empty() ? std::nullopt : ReadTextFile(process.log);
  if (!log) return UnknownRecording(process);
  switch (RecordingFromLog(*log)) {
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
  const std::optional<std::string> log =
      process.log.empty() ? std::nullopt : ReadTextFile(process.log);
  return log ? HooksFromLog(*log) : "";
}

std::string SettingsText(const ProcessInfo& process) {
  std::string path = process.PropertiesPath();
  std::optional<std::string> text = ReadTextFile(path);
  if (!text && !process.shared_properties.empty()) {
    path = process.shared_properties;
    text = ReadTextFile(path);
  }
  if (!text) return "none (backtrace type 0, size " + std::to_string(kDefaultDepth) + ")";
  const BacktraceSettings settings = ParseSettings(*text);
  const std::string type(1, settings.type.value_or(kUnwindFramePointers));
  const char* method = type[0] == kUnwindFramePointers ? " (frame pointers)"
                       : type[0] == kUnwindTables      ? " (dwarf)"
                                                       : " (invalid)";
  return "backtrace type " + type + method + ", size " +
         std::to_string(settings.depth.value_or(kDefaultDepth)) + "  [" + path + "]";
}

std::string ReportText(const std::string& path) {
  const std::optional<FileState> state = StateOf(path);
  if (!state) return "none yet";
  const std::int64_t age = std::time(nullptr) - state->modified_ns / kNanoseconds;
  return path + " (" + FormatBytes(static_cast<std::uint64_t>(state->size)) + ", " +
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

// A root directory stands for the report below it.
std::string FindReport(const std::string& given) {
  std::error_code ignored;
  if (!fs::is_directory(given, ignored)) return given;
  const fs::path below = fs::path(given) / kReportFile;
  for (const fs::path& candidate : {below, fs::path(given) / below.filename()}) {
    std::error_code error;
    const bool found = fs::is_regular_file(candidate, error);
    // A directory without permission hides whether the report is there.
    if (found || error == std::errc::permission_denied) return candidate.string();
  }
  throw UserError("no report below " + given, "write one with: memleak report PID");
}

void WarnOfDamage(const Report& report) {
  for (std::size_t i = 0; i < report.damaged.size() && i < kDamagedLinesShown; ++i) {
    const DamagedLine& line = report.damaged[i];
    std::cerr << "memleak: line " << line.number << " left out: " << FitWidth(line.reason, 120)
              << "\n";
  }
  if (report.damaged.size() > kDamagedLinesShown) {
    std::cerr << "memleak: " << report.damaged.size() - kDamagedLinesShown
              << " more lines left out\n";
  }
}

}  // namespace

int ReportCommand(const ReportOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid, kStartPatienceMs);
  WaitOptions wait;
  wait.path = process.ReportPath();
  wait.old = MoveOldReportAside(wait.path);
  wait.timeout = milliseconds(1000) * options.timeout_s;
  wait.is_alive = [&] { return IsAlive(process.pid); };
  Progress progress("waiting for the report of " + process.Label());
  wait.progress = [&](milliseconds waited, std::int64_t bytes) { progress.Update(waited, bytes); };

  const auto start = steady_clock::now();
  WaitResult result = WaitResult::kTimeout;
  try {
    SendCommand(process, InfoOf(options.kind).report, 0);
    result = WaitForReport(wait);
  } catch (const UserError&) {
    RestoreOldReport(wait.path);
    throw;
  }
  const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  if (result != WaitResult::kComplete) RestoreOldReport(wait.path);
  CheckResult(result, process, wait.path, options.timeout_s);

  const Report report = LoadReport(wait.path);
  std::cout << "report  " << wait.path << "\n"
            << "groups  " << FormatCount(report.header.groups);
  if (report.header.listed < report.header.groups) {
    std::cout << " (the largest " << report.header.listed << " are listed)";
  }
  if (report.header.groups == 0) std::cout << "\n        " << kNothingHeld;
  std::cout << "\nbytes   " << FormatCount(report.header.total_bytes) << " ("
            << FormatBytes(report.header.total_bytes) << ")\n"
            << "took    " << FormatDuration(took) << "\n";
  if (options.kind != Kind::kNative) PrintStillHooked(process);
  return kExitOk;
}

int StatusCommand(pid_t pid) {
  const ProcessInfo process = InspectProcess(pid);
  std::cout << "process     " << process.Label() << ", " << process.executable << "\n"
            << "tracked     " << SignalText(process) << "\n";
  if (!process.has_tracker) return kExitNegative;
  std::cout << "recording   " << RecordingText(process) << "\n";
  const std::string hooks = HooksText(process);
  if (!hooks.empty()) std::cout << "hooks       " << hooks << "\n";
  std::cout << "root        " << process.root << "\n"
            << "properties  " << SettingsText(process) << "\n"
            << "report      " << ReportText(process.ReportPath()) << "\n";
  if (!process.log.empty()) std::cout << "log         " << process.log << "\n";
  return TakesCommands(process) ? kExitOk : kExitNegative;
}

int ShowCommand(const ShowOptions& options) {
  const std::string path = FindReport(options.report);
  const Report report = LoadReport(path);
  if (!report.complete && !options.partial) {
    throw UserError("report is truncated: " + path + " (no \"END\" at its end)",
                    "wait until it is written, or see what is there with --partial");
  }
  WarnOfDamage(report);
  Symbolizer symbolizer;
  PrintReport(
      report, path, options.top,
      [&](const std::string& library, std::uint64_t offset) -> const Symbols& {
        return symbolizer.Resolve(library, offset);
      },
      std::cout);
  const std::vector<std::string> missing = symbolizer.MissingFiles();
  if (!missing.empty()) std::cout << "\nNo symbols for files that are not here:\n";
  for (const std::string& file : missing) std::cout << "  " << FitWidth(file, 78) << "\n";
  return kExitOk;
}

}  // namespace memleak
