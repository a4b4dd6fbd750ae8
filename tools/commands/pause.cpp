// SPDX-License-Identifier: Apache-2.0
// pause: stops recording and keeps the records.
#include <iostream>
#include <memory>

#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/options.h"
#include "tools/target/inspect.h"
#include "tools/target/interference.h"
#include "tools/target/signal_sender.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Records no new blocks; blocks that are freed are still removed from the tables.
`memleak on PID --keep` resumes. For hooked kinds, releases are not recorded
either; the hooks stay and do nothing, and resuming adds hooks once more.

Examples:
  memleak pause 4711
  memleak pause 4711 --kind mmap

Exit codes:
  0  the command was sent
  2  no such process, not permitted, not tracked, or memory of another kind is
     recorded)";

struct PauseOptions {
  pid_t pid = 0;
  const Kind* kind = &protocol::kNative;
};

int Pause(const PauseOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseMixedKinds(process, *options.kind);
  SendCommand(process, options.kind->Pause(), 0);
  std::cout << process.Label() << ": recording paused; "
            << (options.kind->IsNative() ? "freed blocks are still removed from the tables"
                                         : "the hooks stay and do nothing")
            << "\n";
  return kExitOk;
}

}  // namespace

void AddPause(Program* program) {
  CLI::App* command = program->AddCommand("pause", "Stop recording and keep the records", kHelp);
  const auto options = std::make_shared<PauseOptions>();
  AddPid(command, &options->pid);
  AddKind(command, &options->kind);
  program->SetAction(command, [options] { return Pause(*options); });
}

}  // namespace memleak
