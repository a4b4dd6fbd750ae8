// SPDX-License-Identifier: Apache-2.0
// watch: takes reports at intervals and shows what grew. Recording is switched on once and never
// off: frees that happen while it is off would leave stale records.
#include "tools/commands/watch.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/output_file.h"
#include "tools/base/proc_files.h"
#include "tools/base/user_error.h"
#include "tools/commands/input.h"
#include "tools/commands/on.h"
#include "tools/commands/options.h"
#include "tools/export/html.h"
#include "tools/export/json.h"
#include "tools/report/load.h"
#include "tools/target/inspect.h"
#include "tools/target/recording.h"
#include "tools/target/send_command.h"
#include "tools/target/take_report.h"
#include "tools/view/print.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kWatchHelp = R"(
Takes a report at intervals while recording continues, saves each in DIR under
its number and time, and shows at the end what grew from the first to the last.
Native recording is switched on unless it is on already. It is never switched
off. Tables are emptied if recording was off. The watch ends after --for, when
the process ends, or on Ctrl-C or when the terminal closes, which takes a last
report; a second Ctrl-C ends at once. It also ends, with exit code 2, when
another command stops, pauses or clears recording, since later reports cannot
be compared.

A stack is a list of functions and libraries, whatever the size of its blocks.
For each stack that grew:
  +4.7 KiB              bytes in the last report minus bytes in the first
  +1.2 KiB/min          slope of a straight line, by least squares, through all
                        reports in which the stack's size is known
  (95 %: +1.1 to +1.3)  the true slope is between these in 19 of 20 cases, if
                        the reports scatter about a line at random. A range
                        above 0 suggests a leak, one around 0 a cache. Needs
                        three reports.
  r2 0.998              how much of the change the line explains: 1 is steady
                        growth, near 0: no steady growth
DIR/trend.json has all stacks and values for programs. DIR/leak.html shows the
difference of the first and the last report in a browser.

If no profile can be written, only the report is saved. It has an entry for each
block size of a stack and lists the 1000 largest. One that is missing counts as
unknown ("?"), not as 0, and the table shows "known in 4 of 5 reports". Stacks
known in fewer than two reports are not judged.

Examples:
  memleak watch 4711 -o out
  memleak watch 4711 --every 5m --for 8h -o out)";

struct WatchOptions {
  pid_t pid = 0;
  std::uint32_t every_s = 30;
  std::uint32_t for_s = 600;     ///< from the first report to the last; 0: without end
  std::uint32_t timeout_s = 60;  ///< for each report; 0: without end
  std::string directory;         ///< for the reports; made when missing, else empty
  std::size_t top = 10;          ///< stacks to print; 0: all
  SymbolOptions symbols;
};

volatile std::sig_atomic_t interrupted = 0;

void OnInterrupt(int) {
  interrupted = 1;
}

// The first interrupt ends the rounds, the second one the program. A closing terminal may send
// SIGHUP twice, and the reader of the output may be gone; neither may lose the reports.
void CatchInterrupts() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  action.sa_flags = SA_RESTART;
  struct sigaction before {};
  sigaction(SIGHUP, &action, &before);
  if (before.sa_handler == SIG_IGN) sigaction(SIGHUP, &before, nullptr);  // nohup
  signal(SIGPIPE, SIG_IGN);
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

// Keeps the tables after a pause. After a stop they are stale: frees were not recorded, and the
// report has saved the records.
void EnsureRecording(const ProcessInfo& process) {
  const protocol::Recording recording = process.state->RecordingOf(protocol::kNative);
  if (recording == protocol::Recording::kOn) {
    std::cout << process.Label() << ": already recording, existing records kept\n";
    return;
  }
  OnOptions on;
  on.pid = process.pid;
  on.keep = recording == protocol::Recording::kPaused;
  StartRecording(on);
}

/// The rounds and their reports so far.
class Rounds {
 public:
  Rounds(const WatchOptions& options, ProcessInfo process)
      : options_(options),
        process_(std::move(process)),
        started_(StartOf(process_.pid)),
        begin_(steady_clock::now()) {}

  /// Takes reports until the end. Returns the error line of a failure, else an empty string.
  std::string Run() {
    const milliseconds every(1000LL * options_.every_s);
    const milliseconds whole(1000LL * options_.for_s);
    try {
      bool more = Round();
      std::optional<milliseconds> due(0);
      // After an interrupt during a round, one more round: it includes the blocks allocated since.
      while (more) {
        const auto now = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin_);
        due = NextDue(*due, every, whole, now);
        if (!due || !WaitUntil(begin_ + *due)) break;
        const bool is_last = interrupted != 0;
        more = Round() && !is_last;
      }
    } catch (const UserError& error) {
      // A process that ends during a report is no failure if there are reports.
      if (reports_.empty()) throw;
      if (IsRunning()) return error.what();
    }
    if (broken_ && IsEnding()) broken_.reset();
    if (broken_) {
      return process_.Label() + ": " + broken_->why + "; the trend ends with report " +
             std::to_string(reports_.size()) + " (to continue, start another watch)";
    }
    if (!IsRunning()) std::cout << process_.Label() << " has ended" << std::endl;
    return "";
  }

  void Finish() const {
    std::vector<GroupTrend> groups = trends_.Result();
    const std::string path = (fs::path(options_.directory) / "trend.json").string();
    OutputFile file(path);
    WriteTrendsJson(process_.Label(), reports_, groups, broken_, file.Stream());
    file.Commit();
    std::cout << "\n";
    if (reports_.size() > 1) {
      PrintTrends(reports_, groups, options_.top, std::cout);
    } else {
      std::cout << "One report is not enough to measure growth\n";
    }
    if (broken_) {
      std::cout << "ended early, after " << FormatAge(std::llround(broken_->seconds)) << ": "
                << broken_->why << "\n";
    }
    std::cout << "\nreports  " << options_.directory << "\ntrends   " << path << "\n";
    if (reports_.size() > 1 && !PageShell().empty()) WritePage(std::move(groups));
    if (IsRunning() && !broken_) {
      std::cout << "Recording continues; to stop it: memleak report " << process_.pid << "\n";
    }
  }

 private:
  Profile Load(const SavedReport& report) const {
    return LoadProfile((fs::path(options_.directory) / report.file).string(), options_.symbols);
  }

  // Distinguishes a new process with the same id.
  static std::optional<std::uint64_t> StartOf(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    return StartTicks(ReadTextFile(path).value_or(""));
  }
  bool IsRunning() const { return IsAlive(process_.pid) && StartOf(process_.pid) == started_; }

  // Whether the report that stopped recording is the process's report at exit: it ends after that.
  bool IsEnding() const {
    constexpr milliseconds kPollInterval(100);
    constexpr int kMaxPolls = 10;
    const StateFile& state = *process_.state;
    for (int poll = 0; IsRunning() && poll < kMaxPolls; ++poll) {
      if (state->reports_ended != state->reports_started) poll = 0;
      std::this_thread::sleep_for(kPollInterval);
    }
    return !IsRunning();
  }

  // Returns false if the process has ended.
  bool WaitUntil(steady_clock::time_point time) {
    constexpr milliseconds kPollInterval(100);
    constexpr int kPollsPerCheck = 10;
    for (int poll = 1; interrupted == 0 && steady_clock::now() < time; ++poll) {
      if (!IsRunning()) return false;
      if (poll % kPollsPerCheck == 0 && !Interference().empty()) break;
      const auto left = std::chrono::ceil<milliseconds>(time - steady_clock::now());
      std::this_thread::sleep_for(std::clamp(left, milliseconds(0), kPollInterval));
    }
    return IsRunning();
  }

  // What another command has done since the first report; empty if nothing.
  std::string Interference() const {
    return reports_.empty() ? "" : FindInterference(*process_.state, commands_);
  }

  // Ends the trend if `why` is not empty. Returns whether the trend continues.
  bool ContinueUnless(const std::string& why) {
    if (why.empty()) return true;
    const double seconds = std::chrono::duration<double>(steady_clock::now() - begin_).count();
    broken_ = TrendBreak{seconds, why};
    return false;
  }

  std::string Save(std::time_t now) const {
    std::tm parts{};
    localtime_r(&now, &parts);
    std::ostringstream name;
    name << "report-" << std::setw(4) << std::setfill('0') << reports_.size() + 1 << "-"
         << std::put_time(&parts, "%Y%m%d-%H%M%S") << ".txt";
    const fs::path target = fs::path(options_.directory) / name.str();
    const fs::path part = target.string() + ".part";  // until it is complete
    std::error_code error;
    const std::string source = FindReport(process_.ReportPath());
    const RootedPath rooted(source);
    fs::copy_file(rooted.Text(), part, error);
    // Readers take the time of a report from its file.
    fs::file_time_type made;
    if (!error) made = fs::last_write_time(rooted.Text(), error);
    if (!error) fs::last_write_time(part, made, error);
    if (!error) fs::rename(part, target, error);
    if (error) {
      throw UserError("cannot write " + target.string() + ": " + error.message(),
                      "make room, or name another directory with -o DIR");
    }
    return name.str();
  }

  void PrintRound(const SavedReport& saved, milliseconds took) const {
    std::cout << FormatClock(saved.time) << "  report " << reports_.size() << "  "
              << FormatBytes(saved.bytes) << " in " << Counted(saved.groups, "stack");
    if (reports_.size() > 1) {
      const double first = static_cast<double>(reports_.front().bytes);
      std::cout << ", " << FormatGrowth(static_cast<double>(saved.bytes) - first)
                << " since the first";
    }
    std::cout << "  (" << FormatDuration(took) << ")" << std::endl;
  }

  // Takes a report. Returns false if the trend has ended.
  bool Round() {
    const bool first = reports_.empty();
    // Checked before a report is taken: the existing one may belong to another command.
    if (!first && !ContinueUnless(Interference())) return false;
    SavedReport saved;
    saved.time = std::time(nullptr);
    const auto now = steady_clock::now();
    if (first) {
      begin_ = now;
      commands_ = (*process_.state)->carried_out;
    }
    saved.seconds = std::chrono::duration<double>(now - begin_).count();
    // Keep a report of another command; our own ones are saved already.
    const bool ours = !first && (*process_.state)->reports_started == taken_;
    const OldReport old = ours ? OldReport::kReplace : OldReport::kRename;
    const milliseconds took =
        TakeReport(process_, protocol::kReportKeepRecording, options_.timeout_s, old);
    taken_ = (*process_.state)->reports_started;
    if (!ContinueUnless(Interference())) return false;
    saved.file = Save(saved.time);
    const Profile profile = Load(saved);
    saved.bytes = profile.header.total_bytes;
    saved.groups = profile.header.groups;
    saved.unlisted = profile.Unlisted();
    trends_.Add(saved.seconds, profile);
    reports_.push_back(saved);
    PrintRound(saved, took);
    return true;
  }

  void WritePage(std::vector<GroupTrend> groups) const {
    groups.resize(std::min(groups.size(), kTrendsOnPage));
    std::ostringstream trend;
    WriteTrendsJson(process_.Label(), reports_, groups, broken_, trend);
    const std::string path = (fs::path(options_.directory) / "leak.html").string();
    WriteDifferencePage(Load(reports_.front()), Load(reports_.back()), trend.str(), path);
    std::cout << "page     " << path << "\n";
  }

  const WatchOptions& options_;
  ProcessInfo process_;
  std::optional<std::uint64_t> started_;
  steady_clock::time_point begin_;
  std::uint64_t commands_ = 0;  // that were carried out before the watch
  std::uint32_t taken_ = 0;     // number of the latest report of this watch
  std::vector<SavedReport> reports_;
  Trends trends_;
  std::optional<TrendBreak> broken_;
};

// Takes reports until the time is over, the process ends, or another command stops, pauses or
// clears recording. An interrupt or hangup takes a last report; a second interrupt ends the
// program. Output that cannot be written is ignored. Then writes page, table and trend.json.
// Throws UserError if there is no report at all. Returns kExitUserError if a later one failed or
// another command interfered.
int Watch(const WatchOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseMixedKinds(process, protocol::kNative);
  if (options.for_s != 0 && options.every_s > options.for_s) {
    throw UserError("--every is longer than --for, so there would be one report",
                    "give a shorter --every, or a longer --for");
  }
  PrepareDirectory(options.directory);
  CatchInterrupts();
  EnsureRecording(process);
  Rounds rounds(options, process);
  const std::string failure = rounds.Run();
  rounds.Finish();
  if (failure.empty()) return kExitOk;
  std::cerr << "memleak: " << Printable(failure) << "\n";
  return kExitUserError;
}

}  // namespace

std::optional<milliseconds> NextDue(milliseconds last, milliseconds every, milliseconds whole,
                                    milliseconds now) {
  const bool endless = whole.count() == 0;
  milliseconds due = last + every;
  if (!endless && due > whole) return std::nullopt;
  if (now > due) {
    const auto passed = (now - due) / every;
    due += every * (endless ? passed : std::min(passed, (whole - due) / every));
  }
  return due;
}

void AddWatch(Program* program) {
  const auto [command, options] = program->AddCommand(
      "watch", "Take reports at intervals and show what grew", kWatchHelp, Watch);
  AddPid(command, &options->pid);
  AddOption(command, "-o,--output", &options->directory, "DIR",
            "Directory for the reports, a new one")
      ->required();
  ExpectTime(AddOption(command, "--every", &options->every_s, "TIME", "Time between reports (30s)"),
             1, "at least a second, such as 30s, 5m or 1h");
  ExpectTime(AddOption(command, "--for", &options->for_s, "TIME", "Total time (10m); 0: no end"), 0,
             "a time, such as 10m or 2h; 0 for no end");
  AddTimeout(command, &options->timeout_s, "Seconds to wait for each report (60)");
  AddTop(command, &options->top, "Stacks to print (10); 0: all");
  AddSymbolOptions(command, &options->symbols);
}

}  // namespace memleak
