// diff: what changed between two reports; export: a report in the formats of other programs.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/base/format.h"
#include "tools/base/output_file.h"
#include "tools/base/user_error.h"
#include "tools/commands/commands.h"
#include "tools/commands/input.h"
#include "tools/export/diff_json.h"
#include "tools/export/folded.h"
#include "tools/export/html.h"
#include "tools/export/json.h"
#include "tools/export/pprof.h"
#include "tools/export/speedscope.h"
#include "tools/report/diff.h"
#include "tools/view/diff_view.h"
#include "tools/view/printer.h"

namespace memleak {
namespace {

SymbolOptions WithProgress(SymbolOptions symbols) {
  symbols.progress = true;
  return symbols;
}

// All bytes of a report. A gate must not pass because a damaged head reads as 0 bytes, nor because
// Java-native groups, which no head counts, are missing.
std::uint64_t TotalBytes(const Profile& profile) {
  const bool whole = profile.complete && profile.damaged_lines == 0;
  if (!whole || profile.header.total_bytes < profile.Listed(GroupKind::kNative).bytes) {
    throw UserError("report is damaged and has no sure total: " + profile.path,
                    "leave out --fail-over, or write the report again");
  }
  return AddSaturated(profile.header.total_bytes, profile.Listed(GroupKind::kJava).bytes);
}

// Throws UserError when that cannot be told.
bool GrewOver(const Profile& before, const Profile& after, std::uint64_t limit) {
  const std::uint64_t growth = SubtractSaturated(TotalBytes(after), TotalBytes(before));
  if (growth <= limit) return false;
  std::cerr << "memleak: grew by " << FormatCount(growth) << " bytes, more than "
            << FormatCount(limit) << "\n";
  return true;
}

void WriteFormat(const Profile& profile, const ExportOptions& options, std::ostream& out) {
  if (options.format == "folded") {
    WriteFolded(profile, options.by == "count" ? Measure::kBlocks : Measure::kBytes, out);
  } else if (options.format == "speedscope") {
    WriteSpeedscope(profile, out);
  } else if (options.format == "json") {
    WriteJson(ToJson(profile), out);
  } else if (options.format == "html") {
    out << HtmlPage(profile);
  } else if (!WritePprof(profile, out)) {
    out.setstate(std::ios::failbit);
  }
}

void WriteOutput(const Profile& profile, const ExportOptions& options) {
  if (!options.output.empty()) {
    OutputFile file(options.output);
    WriteFormat(profile, options, file.Stream());
    file.Commit();
    return;
  }
  WriteFormat(profile, options, std::cout);
  if (std::cout.flush()) return;
  throw UserError("cannot write the output: " + std::string(std::strerror(errno)),
                  "make room, or give -o FILE");
}

// Formats of others have no place for what the report does not list.
void TellUnlisted(const Profile& profile) {
  const Sums unlisted = profile.Unlisted();
  if (unlisted.groups == 0 && unlisted.bytes == 0) return;
  std::cerr << "memleak: " << FormatBytes(unlisted.bytes) << " in "
            << Counted(unlisted.groups, "group") << (unlisted.groups == 1 ? " is" : " are")
            << " counted by the report but not listed in it, and not exported\n";
}

}  // namespace

int DiffCommand(const DiffOptions& options) {
  const SymbolOptions symbols = WithProgress(options.symbols);
  const auto [before, after] =
      OpenPair(options.before, options.after, options.partial, symbols, options.old_symbols);
  if (options.fail_over.has_value()) {
    TotalBytes(before);
    TotalBytes(after);
  }
  if (options.json) {
    std::cout << DiffJson(before, after);
  } else {
    PrintDifference(before, after, options.top, std::cout);
  }
  const bool over = options.fail_over.has_value() && GrewOver(before, after, *options.fail_over);
  return over ? kExitNegative : kExitOk;
}

int ExportCommand(const ExportOptions& options) {
  if (options.format == "pprof" && options.output.empty() && isatty(STDOUT_FILENO) == 1) {
    throw UserError("a pprof profile is nothing for a terminal", "give -o FILE");
  }
  if (options.by == "count" && options.format != "folded") {
    throw UserError("--by is for --format folded alone", "other formats hold bytes and blocks");
  }
  RefuseOverwriting(options.output, {FindReport(options.report)});
  const Profile profile =
      OpenProfile(options.report, options.partial, WithProgress(options.symbols));
  WriteOutput(profile, options);
  TellUnlisted(profile);
  return kExitOk;
}

}  // namespace memleak
