// pause: nothing new is recorded.
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
No new blocks are recorded; blocks that are freed still leave the tables.
`memleak on PID --keep` goes on. Of the kinds other than native neither is
recorded; the hooks stay and do nothing, and going on hooks once more.

Examples:
  memleak pause 4711
  memleak pause 4711 --kind mmap

Exit codes:
  0  the command was sent
  2  no such process, not permitted, not tracked, or memory of another kind is
     recorded)";

struct PauseOptions {
  pid_t pid = 0;
  Kind kind = Kind::kNative;
};

int Pause(const PauseOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseBeside(process, options.kind);
  SendCommand(process, InfoOf(options.kind).pause, 0);
  std::cout << process.Label() << ": recording paused; "
            << (options.kind == Kind::kNative ? "freed blocks still leave the tables"
                                              : "the hooks stay and do nothing")
            << "\n";
  return kExitOk;
}

}  // namespace

void AddPause(Program* program) {
  CLI::App* command = program->AddCommand("pause", "Record nothing new for a while", kHelp);
  const auto options = std::make_shared<PauseOptions>();
  AddPid(command, &options->pid);
  AddKind(command, &options->kind);
  program->SetAction(command, [options] { return Pause(*options); });
}

}  // namespace memleak
