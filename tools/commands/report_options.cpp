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
                 "a number such as 20; 0 for all");
}

void AddSymbolOptions(CLI::App* command, SymbolOptions* symbols) {
  command
      ->add_option("--symbols", symbols->symbol_dirs,
                   "Debug files or unstripped libraries;\ncan be given several times")
      ->option_text("DIR")
      ->allow_extra_args(false);
  command->add_option("--sysroot", symbols->sysroot, "A copy of the device's files")
      ->option_text("DIR");
  command->add_flag("--debuginfod", symbols->debuginfod, "Ask the servers in DEBUGINFOD_URLS too");
}

void AddOldSymbolOptions(CLI::App* command, OldSymbolOptions* symbols, CLI::Option* old) {
  CLI::Option* dirs =
      command
          ->add_option(
              "--old-symbols", symbols->symbol_dirs,
              "OLD's libraries or debug files, in place of\n--symbols; can be given several times")
          ->option_text("DIR")
          ->allow_extra_args(false);
  CLI::Option* sysroot =
      command
          ->add_option("--old-sysroot", symbols->sysroot, "The device's files at the time of OLD")
          ->option_text("DIR");
  if (old == nullptr) return;
  dirs->needs(old);
  sysroot->needs(old);
}

}  // namespace memleak
