// SPDX-License-Identifier: Apache-2.0
// show: prints a report.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>

#include "tools/base/user_error.h"
#include "tools/commands/input.h"
#include "tools/commands/options.h"
#include "tools/view/print.h"

namespace memleak {
namespace {

constexpr const char* kShowHelp = R"(
Prints what a profile or report holds: bytes, blocks and ages, and the call
stacks with function, file and line where symbols exist. REPORT is the process
id, the file, the root directory that contains it, or a JSON document of
`memleak export`. The profile that belongs to a report is read instead of it.
Stacks that are not shown are summed up below the view. For programs, write
JSON with `memleak export --format json`.

--by stack lists the blocks of each call stack. A report has one entry for each
block size of a stack. --by library and function sum up the stacks: "self"
counts the innermost frame only, "total" all that they call. Without --sort, the
largest "self" is first. --by tree goes from the outermost call inwards, callers
from the allocating call outwards. --sort orders stacks, sums and branches; size
is that of one block, on average.

--filter takes a POSIX extended regular expression, as grep -E does, and finds
it anywhere in a name. Case matters: write [Ff]oo for either. A digit is [0-9],
not \d.

--older-than keeps stacks whose oldest listed block is at least that old, which
drops short-lived memory. A stack is called "growing" when it has blocks from
both the first and the last quarter of the time that the report covers,
"settled" when it has none from the last, "recent" when it has none from the
first. A report lists at most 30 ages of a stack. If they may be those of blocks
of other sizes with the same stack, the ages are printed with "about" and the
word with "perhaps", and --older-than may keep or drop the stack wrongly.

Functions that only pass memory on, such as operator new, xmalloc, g_malloc and
PyObject_Malloc, are left out where memory is allocated. --skip takes an
expression for more of them.

Source lines come from the libraries and from debug files (by build id, debug
link or name) in --symbols and /usr/lib/debug. --debuginfod asks servers too.
--sysroot replaces this machine's files by a copy of the device's. A file that
is newer than the report is used with a warning: it may be another build.

Examples:
  memleak show ./memleak.4711
  memleak show ./memleak.4711 --by function --top 20
  memleak show allocations_dump --filter 'libfoo|Cache::' --older-than 10m
  memleak show allocations_dump --symbols out/symbols --sysroot device)";

struct ShowOptions {
  std::string report;  ///< a report, a root directory that holds one, or a report's JSON document
  ViewOptions view;
  ReadOptions read;
};

// See https://no-color.org: an empty NO_COLOR counts as unset.
bool WantsColor() {
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') &&
         terminal != nullptr && std::string_view(terminal) != "dumb";
}

// See setlocale(3) for the order of these.
bool IsUtf8() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    return strcasestr(value, "utf-8") != nullptr || strcasestr(value, "utf8") != nullptr;
  }
  return false;
}

int Show(const ShowOptions& options) {
  const Profile profile = OpenProfile(options.report, options.read);
  ViewOptions view = options.view;
  view.color = WantsColor();
  if (isatty(STDOUT_FILENO) == 1) view.bars = IsUtf8() ? Bars::kBlocks : Bars::kAscii;
  PrintProfile(profile, view, std::cout);
  return kExitOk;
}

}  // namespace

void AddShow(Program* program) {
  const auto [command, options] = program->AddCommand("show", "Print a report", kShowHelp, Show);
  Selection& selection = options->view.selection;
  AddReportArgument(command, &options->report);
  AddChoice<View>(command, "--by", &options->view.view,
                  {{"stack", View::kGroups},
                   {"library", View::kLibraries},
                   {"function", View::kFunctions},
                   {"tree", View::kTree},
                   {"callers", View::kCallers}},
                  "View (default: stack)");
  AddTop(command, &options->view.top, "Stacks, rows or branches to show (10); 0: all");
  AddOption(command, "--filter", &selection.filter, "REGEX",
            "Stacks with a matching function, library\n"
            "or source file (as grep -E)");
  ExpectBytes(AddOption(command, "--min-size", &selection.min_bytes, "BYTES",
                        "Stacks that hold at least this (64k, 1m)"));
  ExpectTime(AddOption(command, "--older-than", &selection.older_than, "AGE",
                       "Stacks with blocks of at least this age\n(90s, 10m)"),
             0, "an age, such as 90s, 10m, 2h or 1d");
  AddChoice<SortKey>(command, "--sort", &selection.sort,
                     {{"total", SortKey::kTotal},
                      {"count", SortKey::kCount},
                      {"size", SortKey::kSize},
                      {"age", SortKey::kAge}},
                     "Order (default: total)");
  AddSymbolOptions(command, &options->read.symbols);
  command->add_flag("--partial", options->read.partial, "Accept a truncated report");
}

}  // namespace memleak
