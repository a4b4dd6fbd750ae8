// SPDX-License-Identifier: Apache-2.0
// watch: takes reports at intervals and shows what grew.
#include "tools/commands/options.h"
#include "tools/commands/watch_rounds.h"

namespace memleak {
namespace {

constexpr const char* kWatchHelp = R"(
Takes a report at intervals while recording continues, saves each in DIR under
its number and time, and shows at the end what grew from the first to the last.
Native recording is switched on unless it is on already. It is never switched
off. Tables are emptied if recording was off. The watch ends after --for, when
the process ends, or on Ctrl-C or when the terminal closes, which takes a last
report; a second Ctrl-C ends at once. It also ends, with exit code 2, when
another command stops, pauses or clears recording, since later reports cannot
be compared.

A stack is a list of functions and libraries, whatever the size of its blocks.
For each stack that grew:
  +4.7 KiB              bytes in the last report minus bytes in the first
  +1.2 KiB/min          slope of a straight line, by least squares, through all
                        reports in which the stack's size is known
  (95 %: +1.1 to +1.3)  the true slope is between these in 19 of 20 cases, if
                        the reports scatter about a line at random. A range
                        above 0 suggests a leak, one around 0 a cache. Needs
                        three reports.
  r2 0.998              how much of the change the line explains: 1 is steady
                        growth, near 0 is anything else
DIR/trend.json has all stacks and values for programs. DIR/leak.html shows the
difference of the first and the last report in a browser.

If no profile can be written, only the report is saved. It has an entry for each
block size of a stack and lists the 1000 largest. One that is missing counts as
unknown ("?"), not as 0, and the table shows "known in 4 of 5 reports". Stacks
known in fewer than two reports are not judged.

Examples:
  memleak watch 4711 -o out
  memleak watch 4711 --every 5m --for 8h -o out)";

}  // namespace

void AddWatch(Program* program) {
  const auto [command, options] = program->AddCommand(
      "watch", "Take reports at intervals and show what grew", kWatchHelp, Watch);
  AddPid(command, &options->pid);
  AddOption(command, "-o,--output", &options->directory, "DIR",
            "Directory for the reports, a new one")
      ->required();
  ExpectTime(AddOption(command, "--every", &options->every_s, "TIME", "Time between reports (30s)"),
             1, "at least a second, such as 30s, 5m or 1h");
  ExpectTime(AddOption(command, "--for", &options->for_s, "TIME", "Total time (10m); 0: no end"), 0,
             "a time, such as 10m or 2h; 0 for no end");
  AddTimeout(command, &options->timeout_s, "Seconds to wait for each report (60)");
  AddTop(command, &options->top, "Groups to print (10); 0: all");
  AddSymbolOptions(command, &options->symbols);
}

}  // namespace memleak
