// diff: what changed between two reports.
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/input.h"
#include "tools/commands/report_options.h"
#include "tools/export/diff_json.h"
#include "tools/view/diff_view.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Says what grew, shrank, appeared and went from report OLD to report NEW, by call
stack and size of block. Stacks are matched by function and library, so that
reports of different runs can be compared; places without symbols are matched by
the library's build id and offset.

A report holds no symbols: they come from the files that are there now. Where a
program was built anew between both, OLD needs those of its time: by
--old-symbols or --old-sysroot, or by giving the JSON document that
`memleak export --format json` has written then. NEW may be one too.

A report lists its 1000 largest groups. One that only one report lists is called
new or gone only when the other surely lacks it; where it may have been too
small for the list, the bounds are shown ("0 B to 2.0 KiB"), and growth means
what is certain of it.

Several call sites may go by one stack: where one that the other report lists is
missing, it may have been too small just as well. --fail-over compares the
totals, which count all native groups, and the Java-native ones with them.

Examples:
  memleak diff before/memleak.4711 after/memleak.4802
  memleak diff baseline allocations_dump --fail-over 64k
  memleak diff old.json new --json | jq '.groups[] | select(.status == "new")'
  memleak diff old new --old-symbols build-of-old/lib

Exit codes:
  0  done
  1  the total grew by more than --fail-over, and nothing else
  2  any error: not a report, not readable, or truncated (--partial takes what
     is there); with --fail-over, damaged)";

constexpr std::size_t kDefaultTop = 10;

struct DiffOptions {
  std::string before;  ///< a report, a root directory that holds one, or a report's JSON document
  std::string after;   ///< the same
  std::optional<std::uint32_t> top;
  SymbolOptions symbols;
  OldSymbolOptions old_symbols;            ///< for `before` alone
  std::optional<std::uint64_t> fail_over;  ///< bytes of growth that are accepted
  bool json = false;
  bool partial = false;
};

// All bytes of a report, with the Java-native groups, which the head does not count. Throws for a
// damaged report: its total may read as 0, and --fail-over would pass wrongly.
std::uint64_t TotalBytes(const Profile& profile) {
  const bool whole = profile.complete && profile.damaged_lines == 0;
  if (!whole || profile.header.total_bytes < profile.Listed(GroupKind::kNative).bytes) {
    throw UserError("report is damaged and has no sure total: " + profile.path,
                    "leave out --fail-over, or write the report again");
  }
  return AddSaturated(profile.header.total_bytes, profile.Listed(GroupKind::kJava).bytes);
}

// Whether the total grew by more than `limit`; prints by how much. Throws as TotalBytes.
bool GrewOver(const Profile& before, const Profile& after, std::uint64_t limit) {
  const std::uint64_t growth = SubtractSaturated(TotalBytes(after), TotalBytes(before));
  if (growth <= limit) return false;
  std::cerr << "memleak: grew by " << FormatCount(growth) << " bytes, more than "
            << FormatCount(limit) << "\n";
  return true;
}

int Diff(const DiffOptions& options) {
  SymbolOptions symbols = options.symbols;
  symbols.progress = true;
  const auto [before, after] =
      OpenPair(options.before, options.after, options.partial, symbols, options.old_symbols);
  if (options.fail_over.has_value()) {
    TotalBytes(before);
    TotalBytes(after);
  }
  if (options.json) {
    std::cout << DiffJson(before, after);
  } else {
    PrintDifference(before, after, options.top.value_or(kDefaultTop), std::cout);
  }
  const bool over = options.fail_over.has_value() && GrewOver(before, after, *options.fail_over);
  return over ? kExitNegative : kExitOk;
}

}  // namespace

void AddDiff(Program* program) {
  CLI::App* command = program->AddCommand("diff", "Say what changed between reports", kHelp);
  const auto options = std::make_shared<DiffOptions>();
  command->add_option("OLD", options->before, "Report, root directory, or JSON document")
      ->required()
      ->option_text(" ");
  command->add_option("NEW", options->after, "The same")->required()->option_text(" ");
  AddTop(command, &options->top, "Stacks to show (10) of each sort; 0: all");
  ExpectBytes(command
                  ->add_option("--fail-over", options->fail_over,
                               "Exit with 1 when all grew by more (64k, 1m)")
                  ->option_text("BYTES"));
  AddSymbolOptions(command, &options->symbols);
  AddOldSymbolOptions(command, &options->old_symbols, nullptr);
  command->add_flag("--json", options->json, "One JSON document, for programs");
  command->add_flag("--partial", options->partial, "Accept truncated reports");
  program->SetAction(command, [options] { return Diff(*options); });
}

}  // namespace memleak
