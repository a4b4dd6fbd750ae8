// html: a report, or what changed between two, as a page for the browser.
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tools/commands.h"
#include "tools/format.h"
#include "tools/html.h"
#include "tools/output_file.h"
#include "tools/report/diff_json.h"
#include "tools/report/input.h"
#include "tools/report/json.h"
#include "tools/report/json_input.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

// A document that was exported before. Only its head is looked at: the page reads the rest.
std::string ReadDocument(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const auto top_level = [](int depth, nlohmann::json::parse_event_t /*event*/,
                            nlohmann::json& /*value*/) { return depth <= 1; };
  const nlohmann::json head = nlohmann::json::parse(text, top_level, false);
  const auto has = [&head](const char* name, const nlohmann::json& value) {
    return head.is_object() && head.contains(name) && head[name] == value;
  };
  if (!has("format", kJsonFormat) || !has("version", kJsonVersion)) {
    throw UserError("not a memleak-profile document of version 1: " + path,
                    "make one with memleak export --format json, or with memleak diff --json");
  }
  return text;
}

// The page about a report, and about what changed since an older one.
std::string ReportPage(const HtmlOptions& options) {
  SymbolOptions symbols = options.symbols;
  symbols.progress = true;
  const Profile profile = OpenProfile(options.report, options.partial, symbols);
  if (options.old.empty()) return HtmlPage(profile);
  const Profile old = OpenProfile(options.old, options.partial,
                                  ForOld(symbols, options.old_symbols), kNewerOldRemedy);
  return HtmlPage(DiffJson(old, profile));
}

}  // namespace

int HtmlCommand(const HtmlOptions& options) {
  RefuseOverwriting(options.output, {FindReport(options.report), FindReport(options.old)});
  // A document may be of two reports already, and is shown as it is.
  const bool as_it_is = options.old.empty() && IsJsonDocument(options.report);
  const std::string page = as_it_is ? HtmlPage(ReadDocument(options.report)) : ReportPage(options);
  WritePage(page, options.output);
  std::cout << "page  " << options.output << " (" << FormatBytes(page.size())
            << "): open it in a browser\n";
  return kExitOk;
}

}  // namespace memleak
