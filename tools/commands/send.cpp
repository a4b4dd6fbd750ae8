// SPDX-License-Identifier: Apache-2.0
// send: any control word.
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <limits>
#include <sstream>

#include "protocol/kinds.h"
#include "tools/base/user_error.h"
#include "tools/commands/options.h"
#include "tools/target/inspect.h"
#include "tools/target/recording.h"
#include "tools/target/send_command.h"

namespace memleak {
namespace {

constexpr const char* kSendIntro = R"(
Sends any control word. Commands and their bits:
)";

constexpr const char* kSendRest = R"(
A word may contain several commands; docs/control-protocol.md has their order.
The parameter holds the backtrace size in bits 31 to 16 and the type character in
bits 15 to 0.

Examples:
  memleak send 4711 --word 0x90
  memleak send 4711 --word 0x10 --parameter 0xa0031)";

std::string Help() {
  std::ostringstream text;
  text << kSendIntro << "            on        pause     report    clear\n"
       << std::hex << std::left << std::showbase;
  for (const protocol::Kind& kind : protocol::kKinds) {
    text << "  " << std::setw(10) << kind.name;
    for (const std::uint64_t bit : {kind.On(), kind.Pause(), kind.Report()}) {
      text << std::setw(10) << bit;
    }
    text << kind.Clear() << "\n";
  }
  text << "File descriptors: " << protocol::kFdOn << " on, " << protocol::kFdOff << " off, "
       << protocol::kFdDump << " dump, " << protocol::kFdClear << " clear" << kSendRest;
  return text.str();
}

struct SendOptions {
  pid_t pid = 0;
  std::uint64_t word = 0;
  std::uint32_t parameter = 0;
};

int Send(const SendOptions& options) {
  const ProcessInfo process = RequireTracked(options.pid);
  const Carried carried = SendCommand(process, options.word, options.parameter);
  std::cout << process.Label() << ": " << (carried ? "carried out " : "")
            << DescribeCommand(options.word) << ", parameter 0x" << std::hex << options.parameter
            << std::dec << CarriedText(carried) << "\n";
  return kExitOk;
}

}  // namespace

void AddSend(Program* program) {
  const auto [command, options] = program->AddCommand("send", "Send a control word", Help(), Send);
  AddPid(command, &options->pid);
  ExpectNumber(AddOption(command, "--word", &options->word, "WORD", "Control word")->required(),
               CLI::Range(std::numeric_limits<std::uint64_t>::max()), "64 bits, such as 0x90");
  ExpectNumber32(
      AddOption(command, "--parameter", &options->parameter, "WORD", "Parameter word (0)"),
      "32 bits, such as 0xa0031");
}

}  // namespace memleak
