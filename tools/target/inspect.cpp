// SPDX-License-Identifier: Apache-2.0
// Reads /proc for the commands that name a PID.
#include "tools/target/inspect.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <set>
#include <sstream>
#include <thread>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/user_error.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr auto kStartPoll = std::chrono::milliseconds(20);
// A younger process may not have executed the program yet, or its dynamic linker may not have
// loaded the tracker.
constexpr double kYoungSeconds = 3.0;
// Time from mapping the tracker to setting its handler, for processes whose signal mask does not
// show it.
constexpr auto kEmulatedSettle = std::chrono::milliseconds(500);

// The value of a field in the text of /proc/PID/status; empty if there is none.
std::string StatusField(const std::string& status, const std::string& name) {
  std::istringstream lines(status);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
  }
  return "";
}

// The effective id in a field such as "Uid", which lists real, effective, saved and file system id.
std::uint32_t EffectiveId(const std::string& status, const std::string& name) {
  std::istringstream ids(StatusField(status, name));
  std::uint32_t real = 0;
  std::uint32_t effective = 0;
  ids >> real >> effective;
  return effective;
}

bool CatchesControlSignal(const std::string& status) {
  const std::string mask = StatusField(status, "SigCgt");
  return ((std::strtoull(mask.c_str(), nullptr, 16) >> (protocol::control_signal - 1)) & 1) != 0;
}

// Whether the process has ended and waits to be reaped.
bool IsZombie(const std::string& status) {
  const std::string state = StatusField(status, "State");
  return state.starts_with('Z') || state.starts_with('X');
}

// Splits the text of /proc/PID/environ. The first of several entries with one name counts, as for
// getenv.
std::map<std::string, std::string> ParseEnvironment(const std::string& text) {
  std::map<std::string, std::string> environment;
  std::istringstream entries(text);
  for (std::string entry; std::getline(entries, entry, '\0');) {
    const std::size_t equals = entry.find('=');
    if (equals == std::string::npos) continue;
    environment.emplace(entry.substr(0, equals), entry.substr(equals + 1));
  }
  return environment;
}

// The file name of the program that an emulator runs, from the emulator's /proc/PID/cmdline; empty
// if there is none.
std::string GuestName(const std::string& cmdline) {
  static const std::set<std::string> kWithValue = {
      "-g", "-L", "-s", "-E", "-U",   "-0",    "-r",      "-B",      "-R",
      "-D", "-d", "-p", "-t", "-cpu", "-seed", "-plugin", "-dfilter"};
  std::istringstream words(cmdline);
  std::string word;
  std::getline(words, word, '\0');  // the emulator itself
  while (std::getline(words, word, '\0')) {
    if (!word.starts_with('-')) return LastPart(word);
    if (kWithValue.count(word) != 0) std::getline(words, word, '\0');
  }
  return "";
}

UserError NoSuchProcess(pid_t pid) {
  return {"no such process: " + std::to_string(pid),
          std::string("find it with: ") + Advice().find_pid};
}

UserError NotPermitted(pid_t pid, const std::string& path) {
  return {"not permitted to inspect process " + std::to_string(pid) + " (" + path + ")",
          Advice().permission};
}

// Reads a whole file of /proc. Throws UserError.
std::string ReadProc(pid_t pid, const std::string& name) {
  const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    if (errno == EACCES || errno == EPERM) throw NotPermitted(pid, path);
    throw NoSuchProcess(pid);
  }
  const std::optional<std::string> text = ReadAll(file);
  const int error = errno;
  close(file);
  if (text) return *text;
  if (error == EACCES || error == EPERM) throw NotPermitted(pid, path);
  throw NoSuchProcess(pid);
}

// Whether the process was just forked. Until it executes its program, its environment is that of
// the shell.
bool IsYoung(pid_t pid) {
  const std::optional<std::uint64_t> ticks = StartTicks(ReadProc(pid, "stat"));
  timespec now{};
  if (!ticks || clock_gettime(CLOCK_BOOTTIME, &now) != 0) return false;
  const double start = static_cast<double>(*ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9 - start <
         kYoungSeconds;
}

// The text of /proc/PID/status. Throws UserError if the process has ended.
std::string ReadStatus(pid_t pid) {
  std::string status = ReadProc(pid, "status");
  if (IsZombie(status)) {
    throw UserError("no such process: " + std::to_string(pid) + " has ended", "start it again");
  }
  return status;
}

// What changes when a process executes another program.
struct ProgramImage {
  std::string executable;
  std::string environment;
  bool operator==(const ProgramImage&) const = default;
};

ProgramImage ReadImage(pid_t pid) {
  return {LinkTarget("/proc/" + std::to_string(pid) + "/exe"), ReadProc(pid, "environ")};
}

// Reads everything once. Sets `steady` if the process ran the same program throughout.
ProcessInfo ReadOnce(pid_t pid, bool* steady) {
  // First: of a process that has ended, only root may read the other files.
  ReadStatus(pid);
  const ProgramImage image = ReadImage(pid);
  const std::string status = ReadStatus(pid);
  ProcessInfo process;
  process.pid = pid;
  process.user = EffectiveId(status, "Uid");
  process.group = EffectiveId(status, "Gid");
  process.name = StatusField(status, "Name");
  process.catches_signal = CatchesControlSignal(status);
  process.environment = ParseEnvironment(image.environment);
  process.has_tracker = MapsLibrary(ReadMaps(pid), protocol::kTrackerLibrary);
  process.executable = image.executable;
  process.is_emulated = IsEmulator(process.executable);
  if (process.is_emulated) {
    const std::string guest = GuestName(ReadProc(pid, "cmdline"));
    if (!guest.empty()) process.name = guest;
  }
  *steady = image == ReadImage(pid);
  return process;
}

UserError NotTracked(const ProcessInfo& process) {
  if (!process.has_tracker) {
    return {"process " + process.Label() + " is not loaded with the tracker; nothing was sent",
            std::string("start it ") + Advice().with_tracker};
  }
  return {"process " + process.Label() +
              " does not catch signal 44, which would kill it; nothing was sent",
          std::string("restart it ") + Advice().with_tracker};
}

}  // namespace

std::string ReadMaps(pid_t pid) {
  return ReadProc(pid, "maps");
}

std::optional<std::uint64_t> StartTicks(std::string_view stat) {
  // The second field, the name, may hold blanks and parentheses. The start time is the 20th after
  // it.
  constexpr int kFieldsBefore = 19;
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string_view::npos) return std::nullopt;
  std::istringstream fields{std::string(stat.substr(name_end + 1))};
  std::string skipped;
  for (int field = 0; field < kFieldsBefore; ++field) fields >> skipped;
  std::uint64_t ticks = 0;
  if (!(fields >> ticks)) return std::nullopt;
  return ticks;
}

ProcessInfo InspectProcess(pid_t pid) {
  if (pid <= 0) throw UserError("not a process id: " + std::to_string(pid), "give a PID above 0");
  // A process that keeps executing programs is taken as it is after some attempts.
  constexpr int kMaxAttempts = 10;
  bool steady = false;
  ProcessInfo process = ReadOnce(pid, &steady);
  for (int attempt = 1; !steady && attempt < kMaxAttempts; ++attempt)
    process = ReadOnce(pid, &steady);

  FindPlaces(&process);
  return process;
}

ProcessInfo RequireTracked(pid_t pid, int patience_ms) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + std::chrono::milliseconds(patience_ms);
  const std::string controller = LinkTarget("/proc/self/exe");
  std::optional<steady_clock::time_point> mapped;
  bool was_controller = false;
  while (true) {
    ProcessInfo process = InspectProcess(pid);
    const auto now = steady_clock::now();
    // An old shell may execute the controller, which then executes the program.
    was_controller = was_controller || process.executable == controller;
    const bool starting = now < deadline && (was_controller || IsYoung(pid));
    if (process.has_tracker) {
      if (!mapped) mapped = now;
      // An emulator catches every real-time signal, so its mask proves nothing.
      const bool settled = !starting || now - *mapped >= kEmulatedSettle;
      if (process.is_emulated ? settled : process.catches_signal) return process;
    }
    if (!starting) throw NotTracked(process);
    std::this_thread::sleep_for(kStartPoll);
  }
}

bool IsAlive(pid_t pid) {
  if (kill(pid, 0) != 0 && errno == ESRCH) return false;
  try {
    return !IsZombie(ReadProc(pid, "status"));
  } catch (const UserError&) {
    return false;
  }
}

}  // namespace memleak
