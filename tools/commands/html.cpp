// SPDX-License-Identifier: Apache-2.0
// html: a report, or what changed between two, as a page for the browser.
#include <fstream>
#include <iostream>
#include <string>

#include "tools/base/format.h"
#include "tools/base/output_file.h"
#include "tools/base/user_error.h"
#include "tools/commands/input.h"
#include "tools/commands/options.h"
#include "tools/export/html.h"
#include "tools/export/json.h"

namespace memleak {
namespace {

constexpr const char* kHtmlHelp = R"(
Writes one file that shows a report in a browser: a flame graph that zooms and
searches, the table of groups with their stacks, and the ages of their blocks.
With --diff, it shows what changed since OLD. REPORT can be a JSON document of
`memleak export` or `memleak diff` too, and OLD one of `memleak export`.

Examples:
  memleak html ./memleak.4711 -o leak.html
  memleak html new/allocations_dump --diff old/allocations_dump -o grown.html

Exit codes:
  0  written
  2  error: not a report, not readable, truncated (--partial accepts that), or
     the page cannot be written)";

struct HtmlOptions {
  std::string report;  ///< a report, a root directory that holds one, or an exported document
  std::string old;     ///< an older report to compare with; empty for none
  std::string output;
  ReadOptions read;
};

// Writes the data of one report, or of two.
void WriteData(const HtmlOptions& options, std::ostream& out) {
  if (!options.old.empty()) {
    const auto [before, after] = OpenPair(options.old, options.report, options.read);
    return WriteDiffJson(before, after, out);
  }
  const std::string path = FindReport(options.report);
  if (!IsJsonDocument(path)) return WriteProfileJson(OpenProfile(path, options.read), out);
  const Document document = OpenDocument(path, options.read);
  if (!document.base) return WriteProfileJson(document.profile, out);
  out << std::ifstream(path, std::ios::binary).rdbuf();
}

int Html(const HtmlOptions& options) {
  RefuseOverwriting(options.output, {FindReport(options.report), FindReport(options.old)});
  const std::size_t bytes =
      WritePage([&](std::ostream& out) { WriteData(options, out); }, options.output);
  std::cout << "page  " << options.output << " (" << FormatBytes(bytes)
            << "): open it in a browser\n";
  return kExitOk;
}

}  // namespace

void AddHtml(Program* program) {
  const auto [command, options] =
      program->AddCommand("html", "Write a page about a report", kHtmlHelp, Html);
  ReadOptions& read = options->read;
  AddReportArgument(command, &options->report);
  AddOption(command, "-o,--output", &options->output, "FILE", "The page")->required();
  CLI::Option* old = AddOption(command, "--diff", &options->old, "OLD",
                               "Show what changed since this older report or\nits JSON document");
  AddSymbolOptions(command, &read.symbols);
  AddOldSymbolOptions(command, &read.old_symbols, old);
  command->add_flag("--partial", read.partial, "Accept a truncated report");
}

}  // namespace memleak
