// SPDX-License-Identifier: Apache-2.0
// Options of the commands that read reports.
#include "tools/commands/report_options.h"

#include "tools/commands/command_line.h"

namespace memleak {

void AddReportArgument(CLI::App* command, std::string* report) {
  command->add_option("REPORT", *report, "Report, root directory, or JSON document")
      ->required()
      ->option_text(" ");
}

void AddTop(CLI::App* command, std::optional<std::uint32_t>* top, const char* summary) {
  ExpectNumber32(command->add_option("--top", *top, summary)->option_text("N"),
                 "a number, such as 20; 0 for all");
}

void AddSymbolOptions(CLI::App* command, SymbolOptions* symbols) {
  command
      ->add_option("--symbols", symbols->symbol_dirs,
                   "Directory of debug files or unstripped\nlibraries; repeatable")
      ->option_text("DIR")
      ->allow_extra_args(false);
  command->add_option("--sysroot", symbols->sysroot, "Copy of the device's file system")
      ->option_text("DIR");
  command->add_flag("--debuginfod", symbols->debuginfod, "Also ask the servers in DEBUGINFOD_URLS");
}

void AddOldSymbolOptions(CLI::App* command, OldSymbolOptions* symbols, CLI::Option* old) {
  CLI::Option* dirs = command
                          ->add_option("--old-symbols", symbols->symbol_dirs,
                                       "The same as --symbols, for OLD; repeatable")
                          ->option_text("DIR")
                          ->allow_extra_args(false);
  CLI::Option* sysroot =
      command->add_option("--old-sysroot", symbols->sysroot, "The same as --sysroot, for OLD")
          ->option_text("DIR");
  if (old == nullptr) return;
  dirs->needs(old);
  sysroot->needs(old);
}

}  // namespace memleak
