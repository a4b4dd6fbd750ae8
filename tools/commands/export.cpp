// SPDX-License-Identifier: Apache-2.0
// export: writes a report in the format of another program.
#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <string>

#include "tools/base/format.h"
#include "tools/base/output_file.h"
#include "tools/base/user_error.h"
#include "tools/commands/input.h"
#include "tools/commands/options.h"
#include "tools/export/formats.h"
#include "tools/export/json.h"

namespace memleak {
namespace {

constexpr const char* kExportHelp = R"(
Writes a report for other programs:
  folded      one line for each stack, outermost function first, for flame
              graphs; ";", "%" and blanks in names become %3B, %25 and %20
  speedscope  for the viewer of that name: one profile of bytes, one of blocks
  pprof       for `go tool pprof` and readers of continuous profilers:
              inuse_space and inuse_objects, with build ids and lines
  json        everything there is; docs/report-json.md describes it
For a page for the browser, use `memleak html`.

Examples:
  memleak export ./memleak.4711 --format folded > stacks.txt
  memleak export ./memleak.4711 --format pprof -o leak.pb.gz
  memleak export allocations_dump --format speedscope -o leak.speedscope.json)";

enum class Format : std::uint8_t { kFolded, kSpeedscope, kPprof, kJson };

struct ExportOptions {
  std::string report;  ///< a report, a root directory that holds one, or a report's JSON document
  Format format = Format::kFolded;
  Measure by = Measure::kBytes;  ///< for folded stacks
  std::string output;            ///< a file; empty: the standard output
  ReadOptions read;
};

void WriteFormat(const Profile& profile, const ExportOptions& options, std::ostream& out) {
  switch (options.format) {
    case Format::kFolded:
      return WriteFolded(profile, options.by, out);
    case Format::kSpeedscope:
      return WriteSpeedscope(profile, out);
    case Format::kPprof:
      return WritePprof(profile, out);
    case Format::kJson:
      return WriteProfileJson(profile, out);
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
}

// No format has a place for stacks that the report does not list.
void WarnUnlisted(const Profile& profile) {
  const Sums unlisted = profile.Unlisted();
  if (unlisted.groups == 0 && unlisted.bytes == 0) return;
  std::cerr << "memleak: " << FormatBytes(unlisted.bytes) << " in "
            << Counted(unlisted.groups, "stack") << (unlisted.groups == 1 ? " is" : " are")
            << " counted by the report but not listed in it, and not exported\n";
}

int Export(const ExportOptions& options) {
  if (options.format == Format::kPprof && options.output.empty() && isatty(STDOUT_FILENO) == 1) {
    throw UserError("refusing to write a binary profile to a terminal", "give -o FILE");
  }
  if (options.by == Measure::kBlocks && options.format != Format::kFolded) {
    throw UserError("--by needs --format folded", "other formats hold bytes and blocks");
  }
  RefuseOverwriting(options.output, {FindReport(options.report)});
  const Profile profile = OpenProfile(options.report, options.read);
  WriteOutput(profile, options);
  WarnUnlisted(profile);
  return kExitOk;
}

}  // namespace

void AddExport(Program* program) {
  const auto [command, options] =
      program->AddCommand("export", "Write a report in another format", kExportHelp, Export);
  AddReportArgument(command, &options->report);
  AddChoice<Format>(command, "--format", &options->format,
                    {{"folded", Format::kFolded},
                     {"speedscope", Format::kSpeedscope},
                     {"pprof", Format::kPprof},
                     {"json", Format::kJson}},
                    "Output format")
      ->required();
  AddOption(command, "-o,--output", &options->output, "FILE",
            "Output file (default: standard output)");
  AddChoice<Measure>(command, "--by", &options->by,
                     {{"bytes", Measure::kBytes}, {"count", Measure::kBlocks}},
                     "What folded stacks count (default: bytes)");
  AddSymbolOptions(command, &options->read.symbols);
  command->add_flag("--partial", options->read.partial, "Accept a truncated report");
}

}  // namespace memleak
