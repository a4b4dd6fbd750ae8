// on: starts recording, of the native heap or through hooks.
#include "tools/commands/on.h"

#include <elf.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include "tools/base/control.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/options.h"
#include "tools/target/hook_outcome.h"
#include "tools/target/hook_targets.h"
#include "tools/target/inspect.h"
#include "tools/target/interference.h"
#include "tools/target/loaded_libraries.h"
#include "tools/target/log_tail.h"
#include "tools/target/root_directory.h"
#include "tools/target/signal_sender.h"
#include "tools/target/site.h"
#include "tools/view/hooked_pairs.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Starts recording in a process that `memleak run` has started, with empty
tables unless --keep is given. --depth and --unwind are written to the
properties in its root directory.

Kinds other than native record calls that chosen libraries make. These are
hooked: the slot through which the library calls a function is made to lead to
the tracker first.
  mmap  anonymous mappings: mmap, mmap64, __mmap2, mremap and munmap, in the
        libraries of --lib. Without --func those of mmap, mmap64, munmap and
        mremap that each library imports.
  ion   DMA-heap buffers: ioctl in libdmabufheap.so
  gpu   KGSL buffers: ioctl in libgsl.so
--lib and --func are written to the properties too; such a list takes up to 91
bytes. Record one kind at a time: all share the tables. While native recording
is on or paused, commands for other kinds are refused, and the other way round,
as far as the log or the hooked slots tell: they would spoil the records.

Each `on` puts its hooks on top of those that are there, also after a pause, and
each `report --kind` takes one off, in the libraries that the latest `on` has
named. What is left records nothing until the next `on`.

Hooked calls are always traced by frame pointers, as the unwinder cannot cross
a hook; that stays set for native recording until --unwind says otherwise.
What cannot be hooked: the program itself and static code, libraries built
with -fno-plt, slots not resolved yet (lazy binding). Each is told in one line,
and the rest is hooked.

Examples:
  memleak on 4711
  memleak on 4711 --keep --depth 24
  memleak on 4711 --kind mmap --lib libfoo.so,libbar.so
  memleak on 4711 --kind mmap --lib libsqlite3.so.0 --func mmap64,munmap,mremap
  memleak on 4711 --kind gpu

Exit codes:
  0  the command was sent; with another kind than native, something was hooked
  2  no such process, not permitted, not tracked, memory of another kind is
     recorded, root directory not writable, or nothing hooked)";

constexpr const char* kDeviceHelp = R"(
Starts recording in a process that has the tracker loaded, with empty tables
unless --keep is given. Options are kept in system properties, which hold for
all processes, from their next `on`; to set them takes root:
  --depth   vastel.memleak.backtacemaxnum
  --unwind  vastel.memleak.backtacetype (0: frame pointers, 1: dwarf)
  --lib     persist.sys.memleak.hookLib, kept over a restart of the device
  --func    persist.sys.memleak.hookFunc, the same

Kinds other than native record calls that chosen libraries make. These are
hooked: the slot through which the library calls a function is made to lead to
the tracker first.
  mmap  anonymous mappings: mmap, mmap64, __mmap2, mremap and munmap, in the
        libraries of --lib. Without --func those of mmap, mmap64, munmap and
        mremap that each library imports.
  ion   DMA-heap buffers: ioctl in libdmabufheap.so
  gpu   KGSL buffers: ioctl in libgsl.so
A list takes up to 91 bytes. Record one kind at a time: all share the tables.
While native memory is recorded, no other kind can be recorded well. As far as
hooked slots tell, commands for native memory are refused meanwhile.

Each `on` puts its hooks on top of those that are there, also after a pause, and
each `report --kind` takes one off, in the libraries that the latest `on` has
named. Hooked calls are always traced by frame pointers, as the unwinder cannot
cross a hook; that stays set for native recording until --unwind says otherwise.
What cannot be hooked, such as the program itself, is told in one line each, and
the rest is hooked.

Examples:
  memleak on 4711
  memleak on 4711 --keep --depth 24
  memleak on 4711 --kind mmap --lib libfoo.so,libbar.so
  memleak on 4711 --kind gpu

Exit codes:
  0  the command was sent; with another kind than native, something was hooked
     or what came of it cannot be seen
  2  no such process, not permitted, not tracked, a property not to be set, or
     nothing hooked)";

// x86-64 system libraries keep no frame pointers.
char DefaultType(const ProcessInfo& process) {
  return MachineOf(process) == EM_AARCH64 ? kUnwindFramePointers : kUnwindTables;
}

// Writes the chosen settings, and defaults if the process has none. Returns the settings in force.
BacktraceSettings ApplySettings(const ProcessInfo& process, const OnOptions& options) {
  const StoredSettings stored = ReadSettings(process);
  BacktraceSettings wanted{options.depth, options.type};
  if (stored.is_bare) {
    wanted.type = wanted.type.value_or(DefaultType(process));
    wanted.depth = wanted.depth.value_or(kDefaultDepth);
  }
  const std::string updated = UpdateProperties(stored.text, wanted);
  if (wanted.depth || wanted.type) WriteSettings(process, updated);

  BacktraceSettings in_force = ParseSettings(updated);
  if (!in_force.type) in_force.type = kUnwindFramePointers;
  if (!in_force.depth) in_force.depth = kDefaultDepth;
  return in_force;
}

std::string MethodName(char type) {
  if (type == kUnwindFramePointers) return "frame pointers";
  if (type == kUnwindTables) return "dwarf";
  return "invalid type '" + Printable({&type, 1}) + "'";
}

void Complain(const std::string& line) {
  std::cerr << "memleak: " << Printable(line) << "\n";
}

// The hooks that are possible. Prints why others are not; throws if none is.
HookPlan PlanFor(const ProcessInfo& process, const LoadedLibraries& loaded,
                 const OnOptions& options, const ProcessMemory& memory) {
  const HookNames names = NamesFor(options.kind, options.libraries, options.functions);
  const HookRequest request = {names.libraries, names.functions, !options.functions.empty()};
  HookPlan plan = PlanHooks(process, loaded, request, memory);
  if (plan.pairs.empty() && plan.problems.size() == 1) throw UserError(plan.problems.front());
  for (const UserError& problem : plan.problems) Complain(problem.what());
  if (plan.pairs.empty()) {
    throw UserError("nothing of this can be hooked in " + process.Label() + "; nothing was sent",
                    "see memleak libs " + std::to_string(process.pid));
  }
  return plan;
}

// Writes the settings and returns the number of frames kept per record.
std::uint32_t WriteHookSettings(const ProcessInfo& process, const OnOptions& options,
                                const HookPlan& plan) {
  if (options.type.value_or(kUnwindFramePointers) != kUnwindFramePointers) {
    Complain(kNoUnwindTables);
  }
  const std::string current = ReadSettings(process).text;
  const std::string updated = WithHooks(UpdateProperties(current, {options.depth, std::nullopt}),
                                        plan.libraries, plan.functions);
  WriteSettings(process, updated);
  return ParseSettings(updated).depth.value_or(kDefaultDepth);
}

void PrintHooked(const HookPlan& plan, const HookOutcome& outcome) {
  if (!outcome.slots_read) return PrintPairs("asked for  ", plan.pairs, std::cout);
  PrintPairs("hooked  ", outcome.hooked, std::cout);
  std::vector<HookPair> missing;
  for (const HookPair& pair : plan.pairs) {
    const bool done =
        std::any_of(outcome.hooked.begin(), outcome.hooked.end(), [&](const HookPair& hooked) {
          return hooked.library == pair.library && hooked.function == pair.function;
        });
    if (!done) missing.push_back(pair);
  }
  PrintPairs("memleak: not hooked: ", missing, std::cerr);
}

int StartHooking(const OnOptions& options) {
  const KindInfo& kind = InfoOf(options.kind);
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseBeside(process, options.kind);
  const ProcessMemory memory(process.pid);
  const LoadedLibraries loaded = ReadLoadedLibraries(process, memory, HookableFunctions());
  const HookPlan plan = PlanFor(process, loaded, options, memory);
  const std::uint32_t depth = WriteHookSettings(process, options, plan);
  const LogTail log(process);
  const bool hooked_before = !HookedPairs(process, plan, memory).empty();

  // The tracker handles the lower bit, on, first and then clears the tables.
  SendCommand(process, options.keep ? kind.on : kind.on | kind.clear, 0);
  const HookOutcome outcome =
      WaitForHooks(process, kind, plan, log, memory, TrampolineBytes(loaded.mappings));
  for (const std::string& complaint : outcome.complaints) {
    Complain("the tracker says: " + FitWidth(complaint, 200));
  }
  if (outcome.result == HookResult::kNothing) {
    const std::string log_place = LogPlace(process);
    throw UserError("the tracker hooked nothing in " + process.Label(),
                    "see memleak libs " + std::to_string(process.pid) +
                        (log_place.empty() ? "" : " and its log: " + log_place));
  }
  std::cout << process.Label() << ": " << kind.name;
  if (outcome.result == HookResult::kUnseen) {
    std::cout << " recording asked for; " << Advice().unseen_hooks << "\n";
  } else {
    std::cout << " recording on, " << (options.keep ? "earlier records kept" : "tables emptied")
              << ", " << depth << " frames by frame pointers\n";
  }
  PrintHooked(plan, outcome);
  if (hooked_before) {
    std::cout
        << "        Some were hooked before. These have one hook more now, and one report takes\n"
           "        one hook off: give as many as it takes.\n";
  }
  return kExitOk;
}

}  // namespace

int StartRecording(const OnOptions& options) {
  if (options.kind != Kind::kNative) return StartHooking(options);
  if (!options.libraries.empty() || !options.functions.empty()) {
    throw UserError("--lib and --func say what is hooked, and native memory takes no hooks",
                    "add --kind mmap, ion or gpu");
  }
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseBeside(process, options.kind);
  const BacktraceSettings settings = ApplySettings(process, options);
  // The tracker handles the lower bit, on, first and then clears the tables.
  const std::uint64_t word = options.keep ? kNativeOn : kNativeOn | kNativeClear;
  SendCommand(process, word, ParameterWord(std::min(*settings.depth, kMaxDepth), *settings.type));
  std::cout << process.Label() << ": recording on, "
            << (options.keep ? "earlier records kept" : "tables emptied") << ", " << *settings.depth
            << " frames by " << MethodName(*settings.type) << "\n";
  return kExitOk;
}

void AddOn(Program* program) {
  const bool is_device = program->GetEdition() == Edition::kDevice;
  CLI::App* command = program->AddCommand("on", "Start recording", is_device ? kDeviceHelp : kHelp);
  const auto options = std::make_shared<OnOptions>();
  AddPid(command, &options->pid);
  command->add_flag("--keep", options->keep, "Keep what is recorded already");
  AddKind(command, &options->kind);
  AddHookNames(command, &options->libraries, &options->functions);
  AddBacktraceOptions(command, &options->depth, &options->type);
  program->SetAction(command, [options] { return StartRecording(*options); });
}

}  // namespace memleak
