// SPDX-License-Identifier: Apache-2.0
#include "tools/commands/options.h"

#include <limits>
#include <utility>
#include <vector>

#include "protocol/protocol.h"
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
  ExpectNumber(AddOption(command, "PID", pid, " ", "Process id")->required(),
               CLI::Range(1, std::numeric_limits<pid_t>::max()),
               std::string("process id; find it with: ") + Advice().find_pid);
}

void AddKind(CLI::App* command, const Kind** kind) {
  std::vector<std::pair<std::string, const Kind*>> kinds;
  for (const Kind& each : protocol::kKinds) kinds.emplace_back(each.name, &each);
  AddChoice(command, "--kind", kind, kinds, "native (default), " + HookedKindNames());
}

void AddDepth(CLI::App* command, std::optional<std::uint32_t>* depth, const std::string& summary) {
  ExpectNumber(AddOption(command, "--depth", depth, "N", summary),
               CLI::Range(1U, protocol::kMaxDepth),
               "frames, 1 to " + std::to_string(protocol::kMaxDepth));
}

void AddRecordingOptions(CLI::App* command, RecordingOptions* options) {
  AddKind(command, &options->kind);
  ExpectNames(AddOption(command, "--lib", &options->libraries, "NAME,...",
                        "Libraries to hook (default: the kind's own)"));
  ExpectNames(AddOption(command, "--func", &options->functions, "NAME,...",
                        "Functions to hook (default for mmap:\n" +
                            std::string(protocol::KindOf(protocol::MMAP).defaults) + ")"));
  AddDepth(command, &options->depth,
           "Frames kept per allocation (default: " + std::to_string(kDefaultDepth) + ")");
  AddChoice<char>(command, "--unwind", &options->type,
                  {{"fp", protocol::kUnwindFramePointers}, {"dwarf", protocol::kUnwindTables}},
                  "By frame pointers (default on aarch64) or\n"
                  "unwind tables (default on x86-64)");
}

void AddTimeout(CLI::App* command, std::uint32_t* timeout_s, const char* summary) {
  ExpectNumber32(AddOption(command, "--timeout", timeout_s, "SECONDS", summary),
                 "seconds, such as 300; 0 waits forever");
}

void AddReportArgument(CLI::App* command, std::string* report) {
  AddOption(command, "REPORT", report, " ",
            "PID, profile, report, root directory, or\nJSON document")
      ->required();
}

void AddTop(CLI::App* command, std::size_t* top, const char* summary) {
  ExpectNumber32(AddOption(command, "--top", top, "N", summary), "a number, such as 20; 0 for all");
}

void AddSymbolOptions(CLI::App* command, SymbolOptions* symbols) {
  AddOption(command, "--symbols", &symbols->symbol_dirs, "DIR",
            "Directory of debug files or unstripped\nlibraries; repeatable")
      ->allow_extra_args(false);
  AddOption(command, "--sysroot", &symbols->sysroot, "DIR", "Copy of the device's file system");
  AddOption(command, "--skip", &symbols->skip, "REGEX",
            "Functions to leave out where memory is\n"
            "allocated, besides malloc and its like");
  command->add_flag("--debuginfod", symbols->debuginfod, "Also ask the servers in DEBUGINFOD_URLS");
}

void AddOldSymbolOptions(CLI::App* command, SymbolOptions* symbols, CLI::Option* old) {
  for (CLI::Option* option : {AddOption(command, "--old-symbols", &symbols->symbol_dirs, "DIR",
                                        "The same as --symbols, for OLD; repeatable")
                                  ->allow_extra_args(false),
                              AddOption(command, "--old-sysroot", &symbols->sysroot, "DIR",
                                        "The same as --sysroot, for OLD")}) {
    if (old != nullptr) option->needs(old);
  }
}

}  // namespace memleak
