// SPDX-License-Identifier: Apache-2.0
// html: a report, or what changed between two, as a page for the browser.
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
Writes one file that shows a report in a browser: functions with their callers
and callees, a flame graph, stacks with the ages of their blocks, libraries, and
growth. With --diff, growth is what changed since OLD; a page of memleak watch
also has lines over time. REPORT can be a JSON document of `memleak export` or
`memleak diff` too, and OLD one of `memleak export`.

Examples:
  memleak html ./memleak.4711 -o leak.html
  memleak html new/allocations_dump --diff old/allocations_dump -o grown.html)";

struct HtmlOptions {
  std::string report;  ///< a report, a root directory that holds one, or an exported document
  std::string old;     ///< an older report to compare with; empty for none
  std::string output;
  ReadOptions read;
};

// Writes the page of one report, or of two.
std::size_t Write(const HtmlOptions& options) {
  if (!options.old.empty()) {
    const auto [before, after] = OpenPair(options.old, options.report, options.read);
    return WriteDifferencePage(before, after, {}, options.output);
  }
  const std::string path = FindReport(options.report);
  if (!IsJsonDocument(path)) {
    const Profile profile = OpenProfile(path, options.read);
    return WritePage({.report = profile, .groups = profile}, options.output);
  }
  const Document document = OpenDocument(path, options.read);
  const bool two = document.base.has_value();
  return WritePage({.report = document.profile,
                    .groups = document.profile,
                    .base = two ? &*document.base : nullptr,
                    .changes = two ? &document.changes : nullptr,
                    .totals = document.totals},
                   options.output);
}

int Html(const HtmlOptions& options) {
  RefuseOverwriting(options.output, {FindReport(options.report), FindReport(options.old)});
  const std::size_t bytes = Write(options);
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
