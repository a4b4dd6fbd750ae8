// SPDX-License-Identifier: Apache-2.0
// html: a report, or what changed between two, as a page for the browser.
#include <iostream>
#include <memory>
#include <string>

#include "tools/base/format.h"
#include "tools/base/output_file.h"
#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/input.h"
#include "tools/commands/report_options.h"
#include "tools/export/html.h"
#include "tools/export/json.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
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
  SymbolOptions symbols;
  OldSymbolOptions old_symbols;  ///< for `old` only
  bool partial = false;          ///< show what is there of a truncated report
};

// The page of one report, or of two.
std::string ReportPage(const HtmlOptions& options) {
  SymbolOptions symbols = options.symbols;
  symbols.progress = true;
  if (!options.old.empty()) {
    const auto [before, after] =
        OpenPair(options.old, options.report, options.partial, symbols, options.old_symbols);
    return HtmlPage(DiffToJson(before, after));
  }
  const std::string path = FindReport(options.report);
  if (!IsJsonDocument(path)) return HtmlPage(ToJson(OpenProfile(path, options.partial, symbols)));
  const Document document = OpenDocument(path, options.partial, symbols);
  return HtmlPage(document.base ? document.json : ToJson(document.profile));
}

int Html(const HtmlOptions& options) {
  RefuseOverwriting(options.output, {FindReport(options.report), FindReport(options.old)});
  const std::string page = ReportPage(options);
  WritePage(page, options.output);
  std::cout << "page  " << options.output << " (" << FormatBytes(page.size())
            << "): open it in a browser\n";
  return kExitOk;
}

}  // namespace

void AddHtml(Program* program) {
  CLI::App* command = program->AddCommand("html", "Write a page about a report", kHelp);
  const auto options = std::make_shared<HtmlOptions>();
  AddReportArgument(command, &options->report);
  command->add_option("-o,--output", options->output, "The page")->required()->option_text("FILE");
  CLI::Option* old =
      command
          ->add_option("--diff", options->old,
                       "Show what changed since this older report or\nits JSON document")
          ->option_text("OLD");
  AddSymbolOptions(command, &options->symbols);
  AddOldSymbolOptions(command, &options->old_symbols, old);
  command->add_flag("--partial", options->partial, "Accept a truncated report");
  program->SetAction(command, [options] { return Html(*options); });
}

}  // namespace memleak
