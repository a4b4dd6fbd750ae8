// SPDX-License-Identifier: Apache-2.0
// pause: stops recording and keeps the records. clear: drops all records.
#include <cstdint>
#include <iostream>
#include <string>

#include "tools/base/user_error.h"
#include "tools/commands/options.h"
#include "tools/target/inspect.h"
#include "tools/target/recording.h"
#include "tools/target/send_command.h"

namespace memleak {
namespace {

constexpr const char* kPauseHelp = R"(
Records no new blocks; blocks that are freed are still removed from the tables.
`memleak on PID --keep` resumes. For hooked kinds, releases are not recorded
either; the hooks stay and do nothing, and resuming adds hooks once more.

Examples:
  memleak pause 4711
  memleak pause 4711 --kind mmap)";

constexpr const char* kClearHelp = R"(
Drops all records, of every kind. Recording stays on or off. --kind is the kind
that is being recorded.

Examples:
  memleak clear 4711
  memleak clear 4711 --kind mmap)";

struct Options {
  pid_t pid = 0;
  const Kind* kind = &protocol::kNative;
};

// Sends `word` for the recorded kind and prints `result`.
int Send(const Options& options, std::uint64_t word, const std::string& result) {
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseMixedKinds(process, *options.kind);
  const Carried carried = SendCommand(process, word, 0);
  std::cout << process.Label() << ": " << result << CarriedText(carried) << "\n";
  return kExitOk;
}

int Pause(const Options& options) {
  return Send(options, options.kind->Pause(),
              options.kind->IsNative()
                  ? "recording paused; freed blocks are still removed from the tables"
                  : "recording paused; the hooks stay and do nothing");
}

int Clear(const Options& options) {
  return Send(options, options.kind->Clear(), "tables emptied");
}

void Add(Program* program, const char* name, const char* summary, const char* help,
         int (*run)(const Options&)) {
  const auto [command, options] = program->AddCommand(name, summary, help, run);
  AddPid(command, &options->pid);
  AddKind(command, &options->kind);
}

}  // namespace

void AddPause(Program* program) {
  Add(program, "pause", "Stop recording and keep the records", kPauseHelp, Pause);
}

void AddClear(Program* program) {
  Add(program, "clear", "Drop all records", kClearHelp, Clear);
}

}  // namespace memleak
