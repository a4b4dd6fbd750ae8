// SPDX-License-Identifier: Apache-2.0
// Options that several commands share.
#include "tools/commands/options.h"

#include <limits>
#include <utility>
#include <vector>

#include "protocol/protocol.h"
#include "tools/commands/command_line.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

// An empty list is an error even if the option has a default.
void ExpectNames(CLI::Option* option) {
  const auto check = [option](std::string& list) {
    ParseNames(option->get_name(), list);
    return std::string();
  };
  option->transform(CLI::Validator(check, ""));
}

}  // namespace

void AddPid(CLI::App* command, pid_t* pid) {
  ExpectNumber(command->add_option("PID", *pid, "Process id")->required()->option_text(" "),
               CLI::Range(1, std::numeric_limits<pid_t>::max()),
               std::string("process id; find it with: ") + Advice().find_pid);
}

void AddKind(CLI::App* command, const Kind** kind) {
  std::vector<std::pair<std::string, const Kind*>> kinds;
  for (const Kind& each : protocol::kKinds) kinds.emplace_back(each.name, &each);
  AddChoice(command, "--kind", kind, kinds, "native (default), " + HookedKindNames());
}

void AddHookNames(CLI::App* command, std::string* libraries, std::string* functions) {
  ExpectNames(
      command->add_option("--lib", *libraries, "Libraries to hook (default: the kind's own)")
          ->option_text("NAME,..."));
  ExpectNames(command
                  ->add_option("--func", *functions,
                               "Functions to hook (default for mmap:\n" +
                                   std::string(protocol::KindOf(protocol::MMAP).defaults) + ")")
                  ->option_text("NAME,..."));
}

void AddDepth(CLI::App* command, std::optional<std::uint32_t>* depth, const char* summary) {
  ExpectNumber(command->add_option("--depth", *depth, summary)->option_text("N"),
               CLI::Range(1U, protocol::kMaxDepth),
               "frames, 1 to " + std::to_string(protocol::kMaxDepth));
}

void AddBacktraceOptions(CLI::App* command, std::optional<std::uint32_t>* depth,
                         std::optional<char>* type) {
  AddDepth(command, depth, "Frames kept per allocation");
  AddChoice<char>(command, "--unwind", type,
                  {{"fp", protocol::kUnwindFramePointers}, {"dwarf", protocol::kUnwindTables}},
                  "By frame pointers (default on aarch64) or\n"
                  "unwind tables (default on x86-64)");
}

void AddTimeout(CLI::App* command, std::uint32_t* timeout_s, const char* summary) {
  ExpectNumber32(command->add_option("--timeout", *timeout_s, summary)->option_text("SECONDS"),
                 "seconds, such as 300; 0 waits forever");
}

}  // namespace memleak
