// html: a report, or what changed between two, as a page for the browser.
#include <iostream>
#include <string>

#include "tools/base/format.h"
#include "tools/base/output_file.h"
#include "tools/base/user_error.h"
#include "tools/commands/commands.h"
#include "tools/commands/input.h"
#include "tools/export/diff_json.h"
#include "tools/export/html.h"

namespace memleak {
namespace {

// The page about a report, and about what changed since an older one.
std::string ReportPage(const HtmlOptions& options) {
  SymbolOptions symbols = options.symbols;
  symbols.progress = true;
  if (!options.old.empty()) {
    const auto [before, after] =
        OpenPair(options.old, options.report, options.partial, symbols, options.old_symbols);
    return HtmlPage(DiffJson(before, after));
  }
  const std::string path = FindReport(options.report);
  if (!IsJsonDocument(path)) return HtmlPage(OpenProfile(path, options.partial, symbols));
  const Document document = OpenDocument(path, options.partial, symbols);
  // One of two reports has more to it than a profile holds.
  return document.base ? HtmlPage(document.text) : HtmlPage(document.profile);
}

}  // namespace

int HtmlCommand(const HtmlOptions& options) {
  RefuseOverwriting(options.output, {FindReport(options.report), FindReport(options.old)});
  const std::string page = ReportPage(options);
  WritePage(page, options.output);
  std::cout << "page  " << options.output << " (" << FormatBytes(page.size())
            << "): open it in a browser\n";
  return kExitOk;
}

}  // namespace memleak
