// The rounds of `watch`: recording is switched on once and never off, since frees that are not seen
// would leave stale records behind.
#include "tools/watch.h"

#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <thread>

#include "tools/commands.h"
#include "tools/control.h"
#include "tools/format.h"
#include "tools/html.h"
#include "tools/process_info.h"
#include "tools/report/diff_json.h"
#include "tools/root_directory.h"
#include "tools/take_report.h"
#include "tools/trend_table.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

volatile std::sig_atomic_t interrupted = 0;

void OnInterrupt(int) {
  interrupted = 1;
}

// The first interrupt is for an orderly end, the next has its usual effect.
void CatchInterrupts() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void PrepareDirectory(const std::string& directory) {
  std::error_code error;
  fs::create_directories(directory, error);
  if (!error && !fs::is_empty(directory, error) && !error) {
    throw UserError("directory is not empty: " + directory, "name a new one with -o DIR");
  }
  if (error) {
    throw UserError("cannot use directory " + directory + ": " + error.message(),
                    "name another one with -o DIR");
  }
}

// Whether the process records its heap, as far as its log tells.
bool IsRecording(const ProcessInfo& process) {
  const std::optional<std::string> log =
      process.log.empty() ? std::nullopt : ReadTextFile(process.log);
  return log && RecordingFromLog(*log) == Recording::kOn;
}

std::string TimeText(std::time_t time, const char* format) {
  std::tm parts{};
  localtime_r(&time, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, format);
  return text.str();
}

/// The rounds, and what they have brought so far.
class Watch {
 public:
  Watch(const WatchOptions& options, ProcessInfo process)
      : options_(options),
        process_(std::move(process)),
        started_(StartOf(process_.pid)),
        begin_(steady_clock::now()) {}

  /// Takes reports until the end; returns the line about a failure, or an empty one.
  std::string Run();
  void Finish() const;
  std::size_t Reports() const { return reports_.size(); }

 private:
  // Process ids are used again.
  static std::optional<std::uint64_t> StartOf(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    return StartTicks(ReadTextFile(path).value_or(""));
  }
  bool IsThere() const { return IsAlive(process_.pid) && StartOf(process_.pid) == started_; }

  bool WaitUntil(steady_clock::time_point time) const;
  void Round();
  void WriteDifferencePage() const;
  std::string Save(std::time_t now) const;
  void PrintRound(const SavedReport& saved, milliseconds took) const;

  const WatchOptions& options_;
  ProcessInfo process_;
  std::optional<std::uint64_t> started_;
  steady_clock::time_point begin_;
  std::vector<SavedReport> reports_;
  Trends trends_;
};

// Returns false when there is no process to report any more.
bool Watch::WaitUntil(steady_clock::time_point time) const {
  constexpr milliseconds kLook(100);
  while (interrupted == 0 && steady_clock::now() < time) {
    if (!IsThere()) return false;
    const auto left = std::chrono::ceil<milliseconds>(time - steady_clock::now());
    std::this_thread::sleep_for(std::clamp(left, milliseconds(0), kLook));
  }
  return IsThere();
}

std::string Watch::Save(std::time_t now) const {
  std::ostringstream name;
  name << "report-" << std::setw(4) << std::setfill('0') << reports_.size() + 1 << "-"
       << TimeText(now, "%Y%m%d-%H%M%S") << ".txt";
  const fs::path target = fs::path(options_.directory) / name.str();
  std::error_code error;
  fs::copy_file(process_.ReportPath(), target, error);
  // Views of a report take its time from the file's.
  if (!error) fs::last_write_time(target, fs::last_write_time(process_.ReportPath()), error);
  if (error) {
    throw UserError("cannot write " + target.string() + ": " + error.message(),
                    "make room, or name another directory with -o DIR");
  }
  return name.str();
}

void Watch::PrintRound(const SavedReport& saved, milliseconds took) const {
  std::cout << TimeText(saved.time, "%H:%M:%S") << "  report " << reports_.size() << "  "
            << FormatBytes(saved.bytes) << " in " << FormatCount(saved.groups) << " groups";
  if (reports_.size() > 1) {
    const double grown =
        static_cast<double>(saved.bytes) - static_cast<double>(reports_.front().bytes);
    std::cout << ", " << (grown < 0 ? "-" : "+")
              << FormatBytes(static_cast<std::uint64_t>(std::abs(grown))) << " since the first";
  }
  std::cout << "  (" << FormatDuration(took) << ")" << std::endl;
}

void Watch::Round() {
  SavedReport saved;
  saved.time = std::time(nullptr);
  const auto now = steady_clock::now();
  if (reports_.empty()) begin_ = now;
  saved.seconds = std::chrono::duration<double>(now - begin_).count();
  // A report that was there before is kept; ours are saved already.
  const OldReport old = reports_.empty() ? OldReport::kKeepBeside : OldReport::kReplace;
  const milliseconds took = TakeReport(process_, kReportGoingOn, options_.timeout_s, old);
  saved.file = Save(saved.time);
  const Profile profile =
      LoadProfile((fs::path(options_.directory) / saved.file).string(), options_.symbols);
  saved.bytes = profile.header.total_bytes;
  saved.groups = profile.header.groups;
  trends_.Add(saved.seconds, profile);
  reports_.push_back(saved);
  PrintRound(saved, took);
}

std::string Watch::Run() {
  const milliseconds every(1000LL * options_.every_s);
  const milliseconds whole(1000LL * options_.for_s);
  try {
    Round();
    // A round that takes longer than the interval leaves out the times that have passed.
    for (auto due = begin_ + every; options_.for_s == 0 || due <= begin_ + whole; due += every) {
      if (steady_clock::now() > due + every) continue;
      const bool is_there = WaitUntil(due);
      if (!is_there) break;
      const bool is_last = interrupted != 0;
      Round();
      if (is_last || interrupted != 0) break;
    }
  } catch (const UserError& error) {
    // A process that ends in the middle of a report has ended all the same.
    if (reports_.empty()) throw;
    if (IsThere()) return error.what();
  }
  if (!IsThere()) std::cout << process_.Label() << " has ended" << std::endl;
  return "";
}

void Watch::WriteDifferencePage() const {
  const auto load = [&](const SavedReport& report) {
    return LoadProfile((fs::path(options_.directory) / report.file).string(), options_.symbols);
  };
  const std::string path = (fs::path(options_.directory) / "leak.html").string();
  WritePage(HtmlPage(DiffJson(load(reports_.front()), load(reports_.back()))), path);
  std::cout << "page     " << path << "\n";
}

void Watch::Finish() const {
  const std::vector<GroupTrend> groups = trends_.Result();
  const std::string path = (fs::path(options_.directory) / "trend.json").string();
  std::ofstream file(path, std::ios::binary);
  WriteTrends(process_.Label(), reports_, groups, file);
  file.close();
  if (!file) {
    throw UserError("cannot write " + path + ": " + std::strerror(errno),
                    "make room, or name another directory with -o DIR");
  }
  std::cout << "\n";
  if (reports_.size() > 1) {
    PrintTrends(reports_, groups, options_.top, std::cout);
  } else {
    std::cout << "One report tells no growth\n";
  }
  std::cout << "\nreports  " << options_.directory << "\ntrends   " << path << "\n";
  if (reports_.size() > 1 && !PageShell().empty()) WriteDifferencePage();
  if (IsThere()) {
    std::cout << "Recording goes on; end it with: memleak report " << process_.pid << "\n";
  }
}

}  // namespace

int WatchCommand(const WatchOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid, kStartPatienceMs);
  RequireNoHooks(process);
  if (options.for_s != 0 && options.every_s > options.for_s) {
    throw UserError("--every is longer than --for, so there would be one report",
                    "give a shorter --every, or a longer --for");
  }
  PrepareDirectory(options.directory);
  if (IsRecording(process)) {
    std::cout << process.Label() << ": recording goes on, with what it has\n";
  } else {
    // Records from before a pause or a stop may be stale: begin with empty tables.
    OnOptions on;
    on.pid = options.pid;
    OnCommand(on);
  }
  CatchInterrupts();
  Watch watch(options, process);
  const std::string failure = watch.Run();
  watch.Finish();
  if (failure.empty()) return kExitOk;
  std::cerr << "memleak: " << failure << "\n";
  return kExitUserError;
}

}  // namespace memleak
