// SPDX-License-Identifier: Apache-2.0
// clear: drops all records.
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
Drops all records, of every kind. Recording stays on or off. --kind is the kind
that is being recorded.

Examples:
  memleak clear 4711
  memleak clear 4711 --kind mmap

Exit codes:
  0  the command was sent
  2  no such process, not permitted, not tracked, or memory of another kind is
     recorded)";

struct ClearOptions {
  pid_t pid = 0;
  const Kind* kind = &protocol::kNative;
};

int Clear(const ClearOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseMixedKinds(process, *options.kind);
  SendCommand(process, options.kind->Clear(), 0);
  std::cout << process.Label() << ": tables emptied\n";
  return kExitOk;
}

}  // namespace

void AddClear(Program* program) {
  CLI::App* command = program->AddCommand("clear", "Drop all records", kHelp);
  const auto options = std::make_shared<ClearOptions>();
  AddPid(command, &options->pid);
  AddKind(command, &options->kind);
  program->SetAction(command, [options] { return Clear(*options); });
}

}  // namespace memleak
