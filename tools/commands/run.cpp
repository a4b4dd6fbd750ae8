// SPDX-License-Identifier: Apache-2.0
// run: starts a program under the tracker.
#include <memory>
#include <string>
#include <vector>

#include "tools/base/user_error.h"
#include "tools/commands/options.h"
#include "tools/target/launcher.h"

namespace memleak {
namespace {

constexpr const char* kRunHelp = R"(
Creates a root directory for properties and reports and runs PROGRAM with the
tracker. The program gets this command's process id. Nothing is recorded before
`memleak on PID`, unless --start is given. Forked children are tracked too; each
replaces "%p" in the root directory by its process id. --report-at-exit writes
no report if a signal ends the program.

With --kind, --start hooks libraries before main, and --report-at-exit reports
that kind. This works only for libraries that the program is linked with. For
libraries that it loads later, run it without --start and use `memleak on PID
--kind ...` when they are loaded. The log (--log) and `memleak libs PID` show
what is hooked.

Examples:
  memleak run -- sqlite3 test.db
  memleak run --start --report-at-exit --root out -- ./example
  memleak run --depth 24 --unwind dwarf -- ./server
  memleak run --start --kind mmap --lib libfoo.so -- ./server
  memleak run --emulator 'qemu-aarch64 -L /' -- ./arm64-program

Exit codes:
  2  error (see stderr): the program was not started
  Otherwise the exit code of the program.)";

/// CLI11 does not know about the program's words after the options.
class RunFormatter : public CLI::Formatter {
 public:
  RunFormatter() { column_width(26); }
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: memleak run [OPTIONS] -- PROGRAM [ARGUMENTS...]\n\n";
  }
};

// The program and its arguments. `from_dashes` is what the command line has from "--" on.
std::vector<std::string> ProgramWords(const CLI::App& command,
                                      const std::vector<std::string>& from_dashes) {
  std::vector<std::string> words = command.remaining();
  if (!words.empty() && words.front().starts_with('-')) {
    throw UserError("unknown option: " + words.front(), "see memleak run --help");
  }
  // "--" after the program's name is an argument of the program.
  const bool own = !words.empty() || from_dashes.empty();
  words.insert(words.end(), from_dashes.begin() + (own ? 0 : 1), from_dashes.end());
  return words;
}

}  // namespace

void AddRun(Program* program) {
  CLI::App* command = program->AddCommand("run", "Start a program under the tracker", kRunHelp);
  command->formatter(std::make_shared<RunFormatter>());
  command->prefix_command();
  const auto options = std::make_shared<RunOptions>();
  command->add_flag("--start", options->start, "Record from before main");
  command->add_flag("--report-at-exit", options->report_at_exit,
                    "Write a report when the program ends");
  AddRecordingOptions(command, options.get());
  AddOption(command, "--root", &options->root, "DIR", "Root directory (default: ./memleak.<pid>)");
  AddOption(command, "--log", &options->log, "FILE", "The tracker's log: a file, or \"stderr\"");
  AddOption(command, "--libdir", &options->libdir, "DIR",
            "Directory of the tracker's two libraries");
  AddOption(command, "--emulator", &options->emulator, "COMMAND",
            "Emulator for a program of another architecture");
  program->KeepDashes(command, &options->command);
  command->callback([command, options] {
    options->command = ProgramWords(*command, options->command);
    Launch(*options);
  });
}

}  // namespace memleak
