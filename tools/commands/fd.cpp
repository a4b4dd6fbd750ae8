// SPDX-License-Identifier: Apache-2.0
// fd: commands for the separate library that tracks file descriptors. The tracker forwards them.
#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "protocol/protocol.h"
#include "tools/base/user_error.h"
#include "tools/commands/options.h"
#include "tools/target/inspect.h"
#include "tools/target/root_directory.h"
#include "tools/target/send_command.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr const char* kFdHelp = R"(
Controls libfdtrack.so, a separate library that tracks file descriptors. The
tracker loads it into the process and calls it.
  on     load it if needed, and track with --depth frames (default: the depth
         for memory)
  off    stop tracking
  dump   write its stacks
  clear  unload it; also drops all memory records, of every kind
The log names functions that the library lacks.

Examples:
  memleak fd on 4711 --depth 16
  memleak fd dump 4711)";

constexpr const char* kFdLibrary = "libfdtrack.so";

struct Action {
  const char* name;
  std::uint64_t word;
  bool needs_library;  ///< has no effect unless an earlier "on" loaded the library
  const char* done;
};

constexpr Action kActions[] = {
    {"on", protocol::kFdOn, false, "file descriptors are tracked by libfdtrack.so"},
    {"off", protocol::kFdOff, true, "file descriptors are no longer tracked"},
    {"dump", protocol::kFdDump, true, "libfdtrack.so dumps its stacks"},
    {"clear", protocol::kFdClear, false, "libfdtrack.so unloaded, all memory records dropped"},
};

struct FdOptions {
  pid_t pid = 0;
  const Action* action = nullptr;
  std::optional<std::uint32_t> depth;
};

bool HasFdLibrary(const ProcessInfo& process) {
  return MapsLibrary(ReadMaps(process.pid), kFdLibrary);
}

// The given depth, else the one in force for native recording.
std::uint32_t ParameterFor(const ProcessInfo& process, const FdOptions& options) {
  const BacktraceSettings settings = ParseSettings(ReadSettings(process).text);
  const std::uint32_t depth =
      options.depth.value_or(settings.depth.value_or(protocol::kDefaultDepth));
  return protocol::ParameterWord(std::min(depth, protocol::kMaxDepth),
                                 settings.type.value_or(protocol::kUnwindFramePointers));
}

int Fd(const FdOptions& options) {
  const Action* action = options.action;
  const ProcessInfo process = RequireTracked(options.pid);
  if (action->needs_library && !HasFdLibrary(process)) {
    throw UserError(
        std::string(kFdLibrary) + " is not loaded in " + process.Label() + "; nothing was sent",
        "switch it on first: memleak fd on " + std::to_string(process.pid));
  }
  const Carried carried = SendCommand(
      process, action->word, action->word == protocol::kFdOn ? ParameterFor(process, options) : 0);
  if (carried && action->word == protocol::kFdOn && !HasFdLibrary(process)) {
    throw UserError(std::string(kFdLibrary) + " was not loaded in " + process.Label(),
                    "put it, with its three functions, into a directory that the program searches "
                    "for libraries");
  }
  std::cout << process.Label() << ": " << action->done << CarriedText(carried) << "\n";
  return kExitOk;
}

}  // namespace

void AddFd(Program* program) {
  const auto [command, options] = program->AddCommand("fd", "Track file descriptors", kFdHelp, Fd);
  std::vector<std::pair<std::string, const Action*>> actions;
  for (const Action& action : kActions) actions.emplace_back(action.name, &action);
  AddChoice(command, "ACTION", &options->action, actions, "What to do")->required();
  AddPid(command, &options->pid);
  AddDepth(command, &options->depth, "Frames kept, with on");
}

}  // namespace memleak
