// watch: reports of a process at intervals, and what grew.
#include <memory>

#include "tools/commands/all.h"
#include "tools/commands/options.h"
#include "tools/commands/report_options.h"
#include "tools/commands/watch_rounds.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Takes a report every so often while recording goes on, saves each in DIR under
its number and time, and ends by saying what grew from the first to the last.
Native recording is switched on unless the log says that it is on; it is never
switched off. Tables are emptied only where the log says that a report stopped
it. Ends when the time is over, when the process ends, or on Ctrl-C or when the
terminal closes, which takes a last report; a second Ctrl-C ends at once. Ends
too when another command has stopped, paused or cleared recording, and says so:
reports from before and after that cannot be compared. Without a log, only a
report that others take, or one that is empty, tells of it.

A group is the blocks of one size and one stack, compared by the functions and
libraries on it. Of each that grew:
  +4.7 KiB              bytes more in the last report than in the first
  +1.2 KiB/min          its slope: a straight line by least squares through all
                        reports that tell its size
  (95 %: +1.1 to +1.3)  between these lies the true slope in 19 of 20 cases, if
                        the reports scatter about a line at random. A range
                        that is above 0 speaks for a leak; one around 0 for
                        a cache that comes and goes. Takes three reports.
  r2 0.998              how much of the change the line explains: 1 is steady
                        growth, near 0 anything else
A report lists the 1000 largest groups. A group that is not listed while others
are left out counts as unknown there ("?"), not as 0; "known in 4 of 5 reports"
says so. DIR/trend.json holds all groups and values, for programs, DIR/leak.html
shows the difference of first and last in a browser.

Examples:
  memleak watch 4711 -o out
  memleak watch 4711 --every 5m --for 8h -o out

Exit codes:
  0  done
  2  no such process, not permitted, not tracked, recording through hooks, DIR
     not new or not writable, no complete report in time, or another command
     has broken the trend)";

}  // namespace

void AddWatch(Program* program) {
  CLI::App* command = program->AddCommand("watch", "Take reports in turn and say what grew", kHelp);
  const auto options = std::make_shared<WatchOptions>();
  AddPid(command, &options->pid);
  command->add_option("-o,--output", options->directory, "Directory for the reports, a new one")
      ->required()
      ->option_text("DIR");
  ExpectTime(command->add_option("--every", options->every_s, "From report to report (30s)")
                 ->option_text("TIME"),
             1, "at least a second, such as 30s, 5m or 1h");
  ExpectTime(command->add_option("--for", options->for_s, "In all (10m); 0: without end")
                 ->option_text("TIME"),
             0, "a time, such as 10m or 2h; 0 for no end");
  AddTimeout(command, &options->timeout_s, "Seconds to wait for each report (60)");
  AddTop(command, &options->top, "Groups to print (10); 0: all");
  AddSymbolOptions(command, &options->symbols);
  program->SetAction(command, [options] { return Watch(*options); });
}

}  // namespace memleak
