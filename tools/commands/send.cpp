// send: any control word.
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>

#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/options.h"
#include "tools/target/inspect.h"
#include "tools/target/signal_sender.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Sends any control word. Bits of the native heap: 0x10 on, 0x20 pause, 0x40
stop and report, 0x80 clear; the same for mmap from 0x100 to 0x800, for ion
from 0x1000 to 0x8000, for gpu from 0x10000 to 0x80000; of file descriptors:
0x100000 on, 0x200000 off, 0x400000 dump, 0x800000 clear. A word may hold
several; docs/control-protocol.md has their order. The parameter holds the
backtrace size in bits 31 to 16 and the type character in bits 15 to 0.

Examples:
  memleak send 4711 --word 0x90
  memleak send 4711 --word 0x10 --parameter 0xa0031

Exit codes:
  0  the word was sent
  2  no such process, not permitted, not tracked, or a word that is no number)";

struct SendOptions {
  pid_t pid = 0;
  std::uint64_t word = 0;
  std::uint32_t parameter = 0;
};

int Send(const SendOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid);
  SendCommand(process, options.word, options.parameter);
  std::cout << process.Label() << ": sent word 0x" << std::hex << options.word << ", parameter 0x"
            << options.parameter << std::dec << "\n";
  return kExitOk;
}

}  // namespace

void AddSend(Program* program) {
  CLI::App* command = program->AddCommand("send", "Send a control word", kHelp);
  const auto options = std::make_shared<SendOptions>();
  AddPid(command, &options->pid);
  ExpectNumber(
      command->add_option("--word", options->word, "Control word")->required()->option_text("WORD"),
      CLI::Range(std::numeric_limits<std::uint64_t>::max()), "64 bits, such as 0x90");
  ExpectNumber32(command->add_option("--parameter", options->parameter, "Parameter word (0)")
                     ->option_text("WORD"),
                 "32 bits, such as 0xa0031");
  program->SetAction(command, [options] { return Send(*options); });
}

}  // namespace memleak
