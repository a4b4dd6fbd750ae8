// SPDX-License-Identifier: Apache-2.0
#include "tools/target/inspect.h"

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
#include "tools/base/proc_files.h"
#include "tools/base/user_error.h"
#include "tools/target/control_signal.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr auto kStartPoll = std::chrono::milliseconds(20);
// A younger process may not have executed the program yet, or its dynamic linker may not have
// loaded the tracker.
constexpr double kYoungSeconds = 3.0;
// How long a forked child gets to make its state file after it was asked to.
constexpr auto kChildPatience = std::chrono::milliseconds(3000);
constexpr auto kEmulatedChildPatience = std::chrono::milliseconds(8000);

bool CatchesControlSignal(const std::string& status) {
  const std::string mask = StatusField(status, "SigCgt");
  return ((std::strtoull(mask.c_str(), nullptr, 16) >> (protocol::control_signal - 1)) & 1) != 0;
}

// Whether the process has ended and waits to be reaped.
bool IsZombie(const std::string& status) {
  const std::string state = StatusField(status, "State");
  return state.starts_with('Z') || state.starts_with('X');
}

// Whether a signal or a debugger has stopped it.
bool IsStopped(const std::string& status) {
  const std::string state = StatusField(status, "State");
  return state.starts_with('T') || state.starts_with('t');
}

UserError Stopped(const ProcessInfo& process) {
  return {"process " + process.Label() + " is stopped",
          "continue it with kill -CONT " + std::to_string(process.pid)};
}

bool IsInOtherNamespace(pid_t pid) {
  const std::string status = ReadTextFile("/proc/" + std::to_string(pid) + "/status").value_or("");
  return StatusField(status, "NSpid").find('\t') != std::string::npos;
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
  return {"not permitted to inspect process " + std::to_string(pid) +
              (IsInOtherNamespace(pid) ? " of another PID namespace" : "") + " (" + path + ")",
          Advice().permission};
}

// Reads a whole file of /proc. Throws UserError.
std::string ReadProc(pid_t pid, const std::string& name) {
  const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
  const Descriptor file = OpenToRead(path);
  const std::optional<std::string> text = file.IsOpen() ? ReadAll(file) : std::nullopt;
  if (text) return *text;
  if (errno == EACCES || errno == EPERM) throw NotPermitted(pid, path);
  throw NoSuchProcess(pid);
}

// Whether the process was just forked. Until it executes its program, it maps the libraries of
// the shell.
bool IsYoung(pid_t pid) {
  return AgeOf(pid).value_or(kYoungSeconds) < kYoungSeconds;
}

// The text of /proc/PID/status. Throws UserError if the process has ended.
std::string ReadStatus(pid_t pid) {
  std::string status = ReadProc(pid, "status");
  if (IsZombie(status)) {
    throw UserError("no such process: " + std::to_string(pid) + " has ended", "start it again");
  }
  return status;
}

UserError NotTracked(const ProcessInfo& process) {
  // A child that was forked after its parent was detached has no handler.
  const bool parent_was_detached = process.state && !process.catches_signal &&
                                   (*process.state)->form == protocol::Form::kDetached;
  const bool was_detached = process.IsDetached() || parent_was_detached;
  if (!process.has_tracker || was_detached) {
    return {"process " + process.Label() +
                (was_detached ? " was detached from the tracker; nothing was sent"
                              : " is not loaded with the tracker; nothing was sent"),
            Advice().load == nullptr
                ? std::string("start it ") + Advice().with_tracker
                : "load it with: " + std::string(Advice().load) + std::to_string(process.pid)};
  }
  if (process.problem) return *process.problem;
  return {"process " + process.Label() +
              " does not catch signal 44, which would kill it; nothing was sent",
          std::string("restart it ") + Advice().with_tracker};
}

bool TakesCommands(const ProcessInfo& process) {
  if (process.IsDetached()) return false;
  // An emulator catches every real-time signal, so its mask proves nothing.
  return process.has_tracker && !process.problem && (process.is_emulated || process.catches_signal);
}

// Makes a forked child create its state file, and returns it with that.
ProcessInfo WithOwnState(ProcessInfo process) {
  using std::chrono::steady_clock;
  const auto deadline =
      steady_clock::now() + (process.is_emulated ? kEmulatedChildPatience : kChildPatience);
  RingBell(process);
  while (process.has_state_of_parent) {
    if (steady_clock::now() >= deadline) {
      // The form is that of the parent, which may have been detached meanwhile.
      const bool was_attached = (*process.state)->form != protocol::Form::kPreloaded;
      throw UserError("process " + process.Label() +
                          ", a forked child, has made no state file; nothing was sent",
                      (was_attached ? "make one with: memleak attach " + std::to_string(process.pid)
                                    : "start the program with a root directory that user " +
                                          std::to_string(process.user) + " can make:") +
                          " --root /tmp/NAME.%p");
    }
    std::this_thread::sleep_for(kStartPoll);
    process = InspectProcess(process.pid);
  }
  return process;
}

}  // namespace

std::string ReadMaps(pid_t pid) {
  return ReadProc(pid, "maps");
}

ProcessInfo InspectProcess(pid_t pid) {
  if (pid <= 0) throw UserError("not a process id: " + std::to_string(pid), "give a PID above 0");
  // First: of a process that has ended, only root may read the other files.
  ReadStatus(pid);
  const std::string maps = ReadMaps(pid);
  // After the maps: a process that has mapped the tracker keeps its name.
  const std::string status = ReadStatus(pid);
  ProcessInfo process;
  process.pid = pid;
  process.inner_pid = InnerPid(status, pid);
  process.user = EffectiveId(status, "Uid");
  process.group = EffectiveId(status, "Gid");
  process.name = StatusField(status, "Name");
  process.is_stopped = IsStopped(status);
  process.catches_signal = CatchesControlSignal(status);
  process.has_tracker = MapsLibrary(maps, protocol::kTrackerLibrary);
  process.executable = LinkTarget("/proc/" + std::to_string(pid) + "/exe");
  process.is_emulated = IsEmulator(process.executable);
  if (process.is_emulated) {
    const std::string guest = GuestName(ReadProc(pid, "cmdline"));
    if (!guest.empty()) process.name = guest;
  }
  FindPlaces(maps, &process);
  return process;
}

ProcessInfo RequireTracked(pid_t pid, int patience_ms) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + std::chrono::milliseconds(patience_ms);
  const std::string controller = LinkTarget("/proc/self/exe");
  bool was_controller = false;
  while (true) {
    ProcessInfo process = InspectProcess(pid);
    if (process.is_stopped) throw Stopped(process);
    if (TakesCommands(process)) {
      return process.has_state_of_parent ? WithOwnState(std::move(process)) : process;
    }
    // An old shell may execute the controller, which then executes the program.
    was_controller = was_controller || process.executable == controller;
    if (steady_clock::now() >= deadline || (!was_controller && !IsYoung(pid))) {
      throw NotTracked(process);
    }
    std::this_thread::sleep_for(kStartPoll);
  }
}

void RequireRunning(const ProcessInfo& process) {
  const std::string status = ReadStatus(process.pid);
  if (IsStopped(status)) throw Stopped(process);
}

std::optional<double> AgeOf(pid_t pid) {
  const std::optional<std::uint64_t> ticks = StartTicks(ReadProc(pid, "stat"));
  timespec now{};
  if (!ticks || clock_gettime(CLOCK_BOOTTIME, &now) != 0) return std::nullopt;
  const double start = static_cast<double>(*ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9 - start;
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
