// The device edition of `memleak`: what steers a process and fetches its report. Whatever reads
// reports stays at the desk.
#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <vector>

#include "tools/commands/command_line.h"
#include "tools/commands/control_options.h"
#include "tools/commands/device_help_texts.h"

namespace memleak {
namespace {

int Main(const std::vector<std::string>& arguments) {
  CLI::App app{"memleak - steer the recording of native memory in a process of this device",
               "memleak"};
  app.require_subcommand(1);
  AddVersion(&app);
  app.footer(help::kDeviceMain);
  const auto formatter = std::make_shared<CLI::Formatter>();
  formatter->column_width(26);
  app.formatter(formatter);
  ControlOptions options;
  AddControlCommands(&app, {help::kDeviceOn, help::kDeviceReport, help::kDeviceStatus}, &options);
  const std::optional<int> code = ParseWords(&app, arguments);
  return code ? *code : DispatchControl(*app.get_subcommands().front(), &options);
}

}  // namespace
}  // namespace memleak

int main(int count, char** values) {
  return memleak::GuardedMain(count, values, memleak::Main);
}
