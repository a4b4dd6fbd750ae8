// SPDX-License-Identifier: Apache-2.0
// on: starts recording, of the native heap or through hooks.
#include "tools/commands/on.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <optional>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/options.h"
#include "tools/target/hook_targets.h"
#include "tools/target/inspect.h"
#include "tools/target/loaded_libraries.h"
#include "tools/target/recording.h"
#include "tools/target/root_directory.h"
#include "tools/target/send_command.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr const char* kOnHostIntro = R"(
Starts recording in a process that `memleak run` has started or to which
`memleak attach` has attached, with empty tables unless --keep is given.
--depth, --unwind, --lib and --func are written to the properties in its root
directory. The defaults of --depth and --unwind apply for a process without
settings.
)";

constexpr const char* kOnDeviceIntro = R"(
Starts recording in a process that has the tracker loaded, with empty tables
unless --keep is given. Options are written to system properties, which needs
root. They apply to all processes, from their next `on`:
  --depth   vastel.memleak.backtacemaxnum
  --unwind  vastel.memleak.backtacetype (0: frame pointers, 1: dwarf)
  --lib     persist.sys.memleak.hookLib, which survives a reboot
  --func    persist.sys.memleak.hookFunc, which survives a reboot
)";

constexpr const char* kHooks = R"(
Kinds other than native record calls that chosen libraries make, through hooks:
the slot through which the library calls a function leads to the tracker.
)";

constexpr const char* kLimits = R"(
A list holds up to 91 bytes. A library need not import all functions if --func
is absent. Record one kind at a time: all kinds share the tables. Commands for
a hooked kind are refused while native recording is on or paused, and the other
way round.

Each `on` adds hooks to those that exist, also after a pause. Each
`report --kind` removes one from the libraries that the latest `on` has named.
Remaining hooks record nothing until the next `on`.

Hooked calls are always traced by frame pointers, since the unwinder cannot
cross a hook. That also applies to later native recording, until --unwind
changes it. The program itself, static code, libraries built with -fno-plt and
unresolved slots (lazy binding) cannot be hooked. Each of them gets one line,
and the rest is hooked. It is an error if nothing is hooked.

Examples:
  memleak on 4711
  memleak on 4711 --keep --depth 24
  memleak on 4711 --kind mmap --lib libfoo.so,libbar.so
  memleak on 4711 --kind mmap --lib libsqlite3.so.0 --func mmap64,munmap,mremap
  memleak on 4711 --kind gpu)";

// Writes the given settings, and defaults if the process has none. Returns the settings in force.
BacktraceSettings ApplySettings(const ProcessInfo& process, const OnOptions& options) {
  const StoredSettings stored = ReadSettings(process);
  BacktraceSettings wanted{options.depth, options.type};
  if (stored.is_unset) {
    const BacktraceSettings defaults = DefaultSettings(MachineOf(process));
    wanted.type = wanted.type.value_or(*defaults.type);
    wanted.depth = wanted.depth.value_or(*defaults.depth);
  }
  const std::string updated = UpdateProperties(stored.text, wanted);
  if (wanted.depth || wanted.type) WriteSettings(process, updated);

  BacktraceSettings in_force = ParseSettings(updated);
  if (!in_force.type) in_force.type = protocol::kUnwindFramePointers;
  if (!in_force.depth) in_force.depth = protocol::kDefaultDepth;
  return in_force;
}

// The tracker first starts recording and then clears the tables.
std::uint64_t StartWord(const OnOptions& options) {
  return options.kind->On() | (options.keep ? 0 : options.kind->Clear());
}

void PrintWarning(const std::string& line) {
  std::cerr << "memleak: " << Printable(line) << "\n";
}

// The possible hooks. Prints why others are not possible; throws if none is.
HookPlan PlanFor(const ProcessInfo& process, const LoadedLibraries& loaded,
                 const HookRequest& request, const ProcessMemory& memory) {
  HookPlan plan = PlanHooks(process, loaded, request, memory);
  if (plan.pairs.empty() && plan.problems.size() == 1) throw UserError(plan.problems.front());
  for (const UserError& problem : plan.problems) PrintWarning(problem.what());
  if (plan.pairs.empty()) {
    throw UserError("none of these can be hooked in " + process.Label() + "; nothing was sent",
                    "see memleak libs " + std::to_string(process.pid));
  }
  return plan;
}

// The settings in force. The process may read others than those written: see its properties.
BacktraceSettings InForce(const ProcessInfo& process, const BacktraceSettings& written) {
  if (!process.state) return written;
  const StateFile& state = *process.state;
  return {state->depth.load(), static_cast<char>(state->unwind.load())};
}

void WriteHookSettings(const ProcessInfo& process, const OnOptions& options, const HookPlan& plan) {
  if (options.WantsUnwinder()) PrintWarning(kNoUnwindTables);
  const std::string current = ReadSettings(process).text;
  WriteSettings(process, WithHooks(UpdateProperties(current, {options.depth, std::nullopt}),
                                   {plan.libraries, plan.functions}));
}

// Prints what the latest "on" has hooked, and one warning for each pair of `plan` that is not.
void PrintResults(const ProcessInfo& process, const HookPlan& plan, const ProcessMemory& memory) {
  const std::vector<HookResult> results = HookResults(*process.state);
  std::optional<LoadedLibraries> loaded;
  std::vector<HookPair> hooked;
  bool twice = false;
  for (const HookPair& pair : plan.pairs) {
    const std::string name = pair.library + ": " + pair.function;
    const auto result =
        std::find_if(results.begin(), results.end(),
                     [&](const HookResult& candidate) { return candidate.pair == pair; });
    if (result == results.end()) {
      // The state has room for a limited number of results. The slots show the others.
      if (!loaded) loaded = ReadLoadedLibraries(process, memory, HookableFunctions());
      if (!memory.IsOpen()) {
        PrintWarning("may be hooked: " + name + ": to see it, run memleak libs as root");
      } else if (IsHooked(*loaded, pair, memory)) {
        hooked.push_back(pair);
      } else {
        PrintWarning("not hooked: " + name + ": see the log of the process");
      }
      continue;
    }
    if (result->error != 0) {
      PrintWarning((result->hooks == 0 ? "not hooked: " : "hooked before, but not once more: ") +
                   name + ": " + std::strerror(result->error));
    }
    if (result->hooks == 0) continue;
    hooked.push_back(pair);
    twice = twice || (result->hooks > 1 && result->error == 0);
  }
  PrintPairs("hooked  ", hooked, std::cout);
  if (twice) {
    std::cout
        << "        Some were hooked before and have one more hook now. Each report removes one.\n";
  }
}

int StartHooking(const OnOptions& options, const ProcessInfo& process, const HookNames& names) {
  const Kind& kind = *options.kind;
  const ProcessMemory memory(process.pid);
  const HookPlan plan =
      PlanFor(process, ReadLoadedLibraries(process, memory, HookableFunctions()),
              {names.libraries, names.functions, !options.functions.empty()}, memory);
  WriteHookSettings(process, options, plan);

  const Carried carried = SendCommand(process, StartWord(options), 0);
  if (!process.state) {
    std::cout << process.Label() << ": " << kind.name << " recording requested"
              << CarriedText(carried) << "\n";
    PrintPairs("requested  ", plan.pairs, std::cout);
    return kExitOk;
  }
  if (process.state->RecordingOf(kind) != protocol::Recording::kOn) {
    PrintResults(process, plan, memory);
    throw UserError("the tracker hooked nothing in " + process.Label(),
                    "see memleak libs " + std::to_string(process.pid));
  }
  std::cout << process.Label() << ": " << kind.name << " recording on, "
            << (options.keep ? "earlier records kept" : "tables emptied") << ", "
            << *InForce(process, {}).depth << " frames by frame pointers" << CarriedText(carried)
            << "\n";
  PrintResults(process, plan, memory);
  return kExitOk;
}

}  // namespace

int StartRecording(const OnOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseMixedKinds(process, *options.kind);
  const HookNames names = NamesFor(options);
  if (!options.kind->IsNative()) return StartHooking(options, process, names);
  const BacktraceSettings settings = ApplySettings(process, options);
  const Carried carried = SendCommand(
      process, StartWord(options),
      protocol::ParameterWord(std::min(*settings.depth, protocol::kMaxDepth), *settings.type));
  const BacktraceSettings in_force = InForce(process, settings);
  std::cout << process.Label() << ": recording on, "
            << (options.keep ? "earlier records kept" : "tables emptied") << ", " << *in_force.depth
            << " frames by " << MethodName(*in_force.type) << CarriedText(carried) << "\n";
  return kExitOk;
}

void PrintPairs(const char* what, const std::vector<HookPair>& pairs, std::ostream& out) {
  std::string library;
  for (const HookPair& pair : pairs) {
    if (pair.library == library) {
      out << ", " << pair.function;
      continue;
    }
    if (!library.empty()) out << "\n";
    library = pair.library;
    out << what << FitWidth(library, 80) << ": " << pair.function;
  }
  if (!library.empty()) out << "\n";
}

void PrintHooks(const char* what, const StateFile& state) {
  PrintPairs(what, HookedPairs(state), std::cout);
  if (state->hook_states < protocol::kMaxHookStates) return;
  std::cout << std::string(std::strlen(what), ' ') << "There may be more: the state file lists "
            << protocol::kMaxHookStates << " at most. See memleak libs.\n";
}

void PrintStillHooked(const ProcessInfo& process) {
  if (!process.state || HookedPairs(*process.state).empty()) return;
  PrintHooks("hooked  ", *process.state);
  std::cout
      << "        These hooks record nothing. Each `on` adds a hook; a report removes one, in\n"
         "        the libraries that the latest `on` has named.\n";
}

void AddOnOptions(CLI::App* command, OnOptions* options) {
  command->add_flag("--keep", options->keep, "Keep earlier records");
  AddRecordingOptions(command, options);
}

void AddOn(Program* program) {
  const std::string help = (program->IsDevice() ? kOnDeviceIntro : kOnHostIntro) +
                           std::string(kHooks) + HelpOnHookedKinds() + (kLimits + 1);
  const auto [command, options] =
      program->AddCommand("on", "Start recording", help, StartRecording);
  AddPid(command, &options->pid);
  AddOnOptions(command, options);
}

}  // namespace memleak
