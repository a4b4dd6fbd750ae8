// SPDX-License-Identifier: Apache-2.0
// attach: loads the tracker into a process that already runs. detach: stops using it.
#include <deque>
#include <iostream>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/on.h"
#include "tools/commands/options.h"
#include "tools/target/attach.h"
#include "tools/target/attach_checks.h"
#include "tools/target/inspect.h"
#include "tools/target/send_command.h"
#include "tools/target/task_status.h"

namespace memleak {
namespace {

constexpr const char* kAttachHelp = R"(
Loads the tracker into a process that already runs, and starts recording as
`memleak on` does, with the same options. Then all other commands work as for a
process that `memleak run` has started. Reports do not contain blocks that were
allocated earlier. The process can still free and resize them.

gdb loads the tracker, or lldb where gdb is missing. It stops the process when
no thread is in the dynamic linker and at least one thread is outside the
allocator. If that is not the case, it tries again for 5 s.

The root directory is made by the user of the process. If the process has other
mounts, as in a container, --root and --log are paths in the process, and the
tracker's two libraries are copied to the root directory.

Refused: programs that are linked statically or contain an allocator, programs
for musl, emulated programs and programs for another architecture.

Examples:
  memleak attach 4711
  memleak attach 4711 --depth 24 --root /var/tmp/leak
  memleak attach --children $(cat /run/nginx.pid)
  memleak attach 4711 --idle && memleak on 4711 --kind mmap --lib libfoo.so

Exit codes:
  0  attached; recording unless --idle
  2  error (see stderr); the process continues unchanged)";

constexpr const char* kDetachHelp = R"(
Stops recording, restores the calls of the allocator and the action of signal
44, and ends the thread of the tracker.
The libraries stay loaded and do nothing. `memleak attach` attaches again.

A process that `memleak run` has started cannot be detached.

Examples:
  memleak detach 4711
  memleak detach --children $(cat /run/nginx.pid)

Exit codes:
  0  detached
  2  error (see stderr))";

/// The processes on the command line.
struct Processes {
  std::vector<pid_t> pids;
  bool children = false;  ///< their descendants too
};

struct AttachOptions {
  Processes processes;
  bool idle = false;  ///< do not record yet
  AttachPlaces places;
  OnOptions on;
};

void AddProcesses(CLI::App* command, Processes* processes) {
  ExpectNumber(AddOption(command, "PID", &processes->pids, "...", "Process ids")->required(),
               CLI::Range(1, std::numeric_limits<pid_t>::max()), "process id");
  command->add_flag("--children", processes->children, "Also all descendants");
}

// Calls `action` for each process, parents first. An error does not prevent the next one. Returns
// the exit code.
template <typename Action>
int ForEach(const Processes& processes, Action action) {
  int code = kExitOk;
  std::set<pid_t> seen;
  std::deque<pid_t> left(processes.pids.begin(), processes.pids.end());
  for (; !left.empty(); left.pop_front()) {
    const pid_t pid = left.front();
    if (!seen.insert(pid).second) continue;
    try {
      action(pid);
    } catch (const UserError& error) {
      std::cerr << "memleak: " << Printable(error.what()) << std::endl;
      code = kExitUserError;
    }
    if (!processes.children) continue;
    // After the action: a child that was forked meanwhile is found too.
    for (const pid_t child : ChildrenOf(pid)) left.push_back(child);
  }
  return code;
}

bool Has(const ProcessInfo& process, protocol::Form form) {
  return process.state && (*process.state)->form == form;
}

void AttachOne(const AttachOptions& options, pid_t pid) {
  const ProcessInfo process = InspectProcess(pid);
  if (Has(process, protocol::Form::kPreloaded)) throw StartedByRun(process);
  if (Has(process, protocol::Form::kAttached) && !process.has_state_of_parent) {
    std::cout << process.Label() << ": already attached" << std::endl;
  } else {
    const auto stopped = AttachTo(process, options.places);
    std::cout << process.Label() << ": attached, stopped for " << FormatDuration(stopped)
              << ", root directory " << Printable(InspectProcess(pid).root) << std::endl;
    if (process.catches_signal && !Has(process, protocol::Form::kAttached)) {
      std::cerr << "memleak: process " << process.Label()
                << " handles signal 44, which the tracker uses: its handler does not run before "
                   "memleak detach"
                << std::endl;
    }
  }
  if (options.idle) return;
  OnOptions on = options.on;
  on.pid = pid;
  StartRecording(on);
}

int Attach(const AttachOptions& options) {
  return ForEach(options.processes, [&](pid_t pid) { AttachOne(options, pid); });
}

int Detach(const Processes& processes) {
  return ForEach(processes, [](pid_t pid) {
    const ProcessInfo process = RequireTracked(pid);
    if (Has(process, protocol::Form::kPreloaded)) {
      throw UserError(
          "process " + process.Label() + " was started by memleak run and cannot be detached",
          "stop recording with: memleak pause " + std::to_string(pid));
    }
    const Carried carried = DetachFrom(process);
    std::cout << process.Label() << ": detached" << CarriedText(carried) << std::endl;
  });
}

}  // namespace

void AddAttach(Program* program) {
  const auto [command, options] = program->AddCommand(
      "attach", "Load the tracker into a process that runs", kAttachHelp, Attach);
  AddProcesses(command, &options->processes);
  command->add_flag("--idle", options->idle, "Do not start recording");
  command->add_flag("--force", options->places.force,
                    "Attach although seccomp filters may end the process");
  AttachPlaces& places = options->places;
  AddOption(command, "--root", &places.root, "DIR",
            "Root directory (default: ./memleak.<pid>, else\n/tmp/memleak.<pid>)");
  AddOption(command, "--log", &places.log, "FILE", "The tracker's log");
  AddOption(command, "--libdir", &places.libdir, "DIR", "Directory of the tracker's two libraries");
  AddOnOptions(command, &options->on);
}

void AddDetach(Program* program) {
  const auto [command, processes] =
      program->AddCommand("detach", "Stop tracking a process", kDetachHelp, Detach);
  AddProcesses(command, processes);
}

}  // namespace memleak
