// SPDX-License-Identifier: Apache-2.0
// diff: compares two reports.
#include <cstdint>
#include <iostream>
#include <optional>
#include <string>

#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/commands/input.h"
#include "tools/commands/options.h"
#include "tools/export/json.h"
#include "tools/view/print.h"

namespace memleak {
namespace {

constexpr const char* kDiffHelp = R"(
Prints which stacks grew, shrank, appeared or went from OLD to NEW. A report
without a profile has one entry for each block size of a stack. Stacks are
matched by function and library, so different runs can be compared. Places
without symbols are matched by the library's build id and offset.

A report holds no symbols: they come from the files that exist now. If a program
was rebuilt between the reports, give OLD the symbols of its time: use
--old-symbols or --old-sysroot, or a JSON document that
`memleak export --format json` wrote at that time. NEW can be a document too.

A report without a profile lists its 1000 largest stacks. If it omits others, a
stack that is missing may only be too small for the list. Such a stack is not
judged: a note counts these stacks, and --json calls them "unknown". The same
holds for a stack that lacks one of its call sites. --fail-over compares the
totals, which count all native stacks, and the Java-native stacks that are
listed.

Examples:
  memleak diff before/memleak.4711 after/memleak.4802
  memleak diff baseline allocations_dump --fail-over 64k
  memleak diff old.json new --json | jq '.groups[] | select(.status == "new")'
  memleak diff old new --old-symbols build-of-old/lib

Exit codes:
  0  done
  1  the total grew by more than --fail-over
  2  error: not a report, not readable, truncated (--partial accepts that), or
     damaged while --fail-over is given)";

struct DiffOptions {
  std::string before;  ///< a report, a root directory that holds one, or a report's JSON document
  std::string after;   ///< the same
  std::size_t top = 10;
  std::optional<std::uint64_t> fail_over;  ///< bytes of growth that are accepted
  bool json = false;
  ReadOptions read;
};

// All bytes of a report. The head does not count Java-native groups. Throws for a damaged report:
// its total may read as 0, and --fail-over would pass.
std::uint64_t TotalBytes(const Profile& profile) {
  if (!profile.IsWhole() || profile.header.total_bytes < profile.Listed(GroupKind::kNative).bytes) {
    throw UserError("report is damaged, its total is not known: " + profile.path,
                    "leave out --fail-over, or write the report again");
  }
  return AddSaturated(profile.header.total_bytes, profile.Listed(GroupKind::kJava).bytes);
}

// Whether the total grew by more than `limit`. Prints the growth if so.
bool GrewOver(const Profile& before, const Profile& after, std::uint64_t limit) {
  const std::uint64_t growth = SubtractSaturated(TotalBytes(after), TotalBytes(before));
  if (growth <= limit) return false;
  std::cerr << "memleak: grew by " << FormatCount(growth) << " bytes, more than "
            << FormatCount(limit) << "\n";
  return true;
}

int Diff(const DiffOptions& options) {
  const auto [before, after] = OpenPair(options.before, options.after, options.read);
  if (options.fail_over.has_value()) {
    TotalBytes(before);
    TotalBytes(after);
  }
  if (options.json) {
    WriteDiffJson(before, after, std::cout);
  } else {
    PrintDifference(before, after, options.top, std::cout);
  }
  const bool over = options.fail_over.has_value() && GrewOver(before, after, *options.fail_over);
  return over ? kExitNegative : kExitOk;
}

}  // namespace

void AddDiff(Program* program) {
  const auto [command, options] =
      program->AddCommand("diff", "Show what changed between reports", kDiffHelp, Diff);
  ReadOptions& read = options->read;
  AddOption(command, "OLD", &options->before, " ", "Report, PID, root directory, or JSON\ndocument")
      ->required();
  AddOption(command, "NEW", &options->after, " ", "The same")->required();
  AddTop(command, &options->top, "Stacks that grew, and that shrank, to show\n(10); 0: all");
  ExpectBytes(AddOption(command, "--fail-over", &options->fail_over, "BYTES",
                        "Exit with 1 if the total grew by more (64k)"));
  AddSymbolOptions(command, &read.symbols);
  AddOldSymbolOptions(command, &read.old_symbols, nullptr);
  command->add_flag("--json", options->json, "One JSON document, for programs");
  command->add_flag("--partial", read.partial, "Accept truncated reports");
}

}  // namespace memleak
