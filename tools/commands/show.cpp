// show: a report as text or as JSON.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/input.h"
#include "tools/commands/report_options.h"
#include "tools/export/json.h"
#include "tools/view/show.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Prints what a report holds: how much, in how many blocks, how old, and the call
stacks with function, file and line where symbols exist. REPORT is the file or
the root directory that holds it, or a JSON document of `memleak export`. What
lies outside of the view is summed up below it.

--by group lists blocks of one size and one stack; library and function sum
groups up, with all that they call and (self) by the innermost frame alone; tree
goes from the outermost call inwards, callers from the allocating call outwards.
--sort orders groups, sums and the branches of trees; size is that of a block.

--filter takes a POSIX extended regular expression, as grep -E does, to be found
anywhere in a name. Capitals are told apart: write [Ff]oo for either; [0-9], not
\d, is a digit.

--older-than keeps groups whose oldest listed block is at least that old: memory
that comes and goes drops out. A group is called "growing" when it has blocks
from both the first and the last quarter of the time that the report covers,
"settled" when it has none from the last, "recent" when it has none from the
first. A report lists at most 30 ages of a stack: where it is not certain that
they are those of the group's blocks, the ages are said to be "about" so, and
the word is "perhaps". Blocks of other sizes with the same stack may be among
them then, and --older-than may keep or drop such a group wrongly.

Lines come from the libraries, from debug files (by build id, debug link or
name) in --symbols and /usr/lib/debug; from servers with --debuginfod alone.
--sysroot replaces this machine's files by a copy of the device's. A file that
is newer than the report is used with a warning: it may be another build.

Examples:
  memleak show ./memleak.4711
  memleak show ./memleak.4711 --by function --top 20
  memleak show allocations_dump --filter 'libfoo|Cache::' --older-than 10m
  memleak show allocations_dump --symbols out/symbols --sysroot device
  memleak show allocations_dump --json | jq .totals

Exit codes:
  0  shown
  2  not a report, not readable, or truncated (--partial shows what is there))";

struct ShowOptions {
  std::string report;  ///< a report, a root directory that holds one, or a report's JSON document
  ViewOptions view;
  std::optional<std::uint32_t> top;  ///< default: 10; with --json all
  SymbolOptions symbols;
  bool partial = false;  ///< show what is there of a truncated report
  bool json = false;
};

constexpr std::size_t kDefaultTop = 10;

// See https://no-color.org: an empty NO_COLOR counts as unset.
bool WantsColor() {
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') &&
         terminal != nullptr && std::string_view(terminal) != "dumb";
}

// Native groups, then Java ones: each kind sorted as requested and cut to `top` groups.
std::vector<std::size_t> ChooseGroups(const Profile& profile, const ShowOptions& options) {
  std::vector<std::size_t> chosen;
  Selection selection = options.view.selection;
  for (const GroupKind kind : {GroupKind::kNative, GroupKind::kJava}) {
    selection.kind = kind;
    std::vector<std::size_t> groups = SelectGroups(profile, selection).groups;
    const std::size_t top = options.top.value_or(0);
    if (top != 0 && groups.size() > top) groups.resize(top);
    chosen.insert(chosen.end(), groups.begin(), groups.end());
  }
  return chosen;
}

int Show(const ShowOptions& options) {
  SymbolOptions symbols = options.symbols;
  symbols.progress = true;
  if (options.json && options.view.view != View::kGroups) {
    throw UserError("--json holds the groups themselves, whatever --by says",
                    "leave out one of them");
  }
  const Profile profile = OpenProfile(options.report, options.partial, symbols);
  if (options.json) {
    WriteJson(ToJson(profile, ChooseGroups(profile, options)), std::cout);
    return kExitOk;
  }
  ViewOptions view = options.view;
  view.top = options.top.value_or(kDefaultTop);
  view.color = WantsColor();
  PrintProfile(profile, view, std::cout);
  return kExitOk;
}

}  // namespace

void AddShow(Program* program) {
  CLI::App* command = program->AddCommand("show", "Print a report", kHelp);
  const auto options = std::make_shared<ShowOptions>();
  Selection& selection = options->view.selection;
  AddReportArgument(command, &options->report);
  AddChoice<View>(command, "--by", &options->view.view,
                  {{"group", View::kGroups},
                   {"library", View::kLibraries},
                   {"function", View::kFunctions},
                   {"tree", View::kTree},
                   {"callers", View::kCallers}},
                  "View (default: group)");
  AddTop(command, &options->top, "Groups, rows or branches to show (10); 0: all");
  command
      ->add_option("--filter", selection.filter,
                   "Groups with a matching function, library\nor source file on their stack (as "
                   "grep -E)")
      ->option_text("REGEX");
  ExpectBytes(
      command->add_option("--min-size", selection.min_bytes, "Groups that hold as much (64k, 1m)")
          ->option_text("BYTES"));
  ExpectTime(command
                 ->add_option("--older-than", selection.older_than,
                              "Groups with blocks that old (90s, 10m)")
                 ->option_text("AGE"),
             0, "an age, such as 90s, 10m, 2h or 1d");
  AddChoice<SortKey>(command, "--sort", &selection.sort,
                     {{"total", SortKey::kTotal},
                      {"count", SortKey::kCount},
                      {"size", SortKey::kSize},
                      {"age", SortKey::kAge}},
                     "Order (default: total)");
  AddSymbolOptions(command, &options->symbols);
  command->add_flag("--json", options->json, "One JSON document, for programs");
  command->add_flag("--partial", options->partial, "Accept a truncated report");
  program->SetAction(command, [options] { return Show(*options); });
}

}  // namespace memleak
