// on, pause, clear and send: what changes the state of a process.
#include <elf.h>

#include <algorithm>
#include <iostream>

#include "tools/base/control.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/commands.h"
#include "tools/target/interference.h"
#include "tools/target/loaded_libraries.h"
#include "tools/target/process_info.h"
#include "tools/target/root_directory.h"
#include "tools/target/signal_sender.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

// x86-64 system libraries keep no frame pointers.
char DefaultType(const ProcessInfo& process) {
  return MachineOf(process) == EM_AARCH64 ? kUnwindFramePointers : kUnwindTables;
}

// Puts the chosen settings in force, and defaults where a process has none; returns what holds.
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

int SendSimple(pid_t pid, Kind kind, std::uint64_t word, const char* done) {
  const ProcessInfo process = RequireTracked(pid, kStartPatienceMs);
  RefuseBeside(process, kind);
  SendCommand(process, word, 0);
  std::cout << process.Label() << ": " << done << "\n";
  return kExitOk;
}

}  // namespace

int OnCommand(const OnOptions& options) {
  if (options.kind != Kind::kNative) return HookOnCommand(options);
  if (!options.libraries.empty() || !options.functions.empty()) {
    throw UserError("--lib and --func say what is hooked, and native memory takes no hooks",
                    "add --kind mmap, ion or gpu");
  }
  const ProcessInfo process = RequireTracked(options.pid, kStartPatienceMs);
  RefuseBeside(process, options.kind);
  const BacktraceSettings settings = ApplySettings(process, options);
  // Both bits in one word: recording goes on first and is then emptied.
  const std::uint64_t word = options.keep ? kNativeOn : kNativeOn | kNativeClear;
  SendCommand(process, word, ParameterWord(std::min(*settings.depth, kMaxDepth), *settings.type));
  std::cout << process.Label() << ": recording on, "
            << (options.keep ? "earlier records kept" : "tables emptied") << ", " << *settings.depth
            << " frames by " << MethodName(*settings.type) << "\n";
  return kExitOk;
}

int PauseCommand(pid_t pid, Kind kind) {
  return SendSimple(pid, kind, InfoOf(kind).pause,
                    kind == Kind::kNative ? "recording paused; freed blocks still leave the tables"
                                          : "recording paused; the hooks stay and do nothing");
}

int ClearCommand(pid_t pid, Kind kind) {
  return SendSimple(pid, kind, InfoOf(kind).clear, "tables emptied");
}

int SendWordCommand(const SendOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid, kStartPatienceMs);
  SendCommand(process, options.word, options.parameter);
  std::cout << process.Label() << ": sent word 0x" << std::hex << options.word << ", parameter 0x"
            << options.parameter << std::dec << "\n";
  return kExitOk;
}

}  // namespace memleak
