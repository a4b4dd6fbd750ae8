// html: a report, or what changed between two, as a page for the browser.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tools/commands.h"
#include "tools/format.h"
#include "tools/html.h"
#include "tools/report/diff_json.h"
#include "tools/report/input.h"
#include "tools/report/json.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

// Whether the file holds a JSON document rather than a report.
bool IsJson(const std::string& path) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) return false;
  std::ifstream file(path, std::ios::binary);
  char first = '\0';
  return (file >> first) && first == '{';
}

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
  return HtmlPage(DiffJson(OpenProfile(options.old, options.partial, symbols), profile));
}

std::string DocumentPage(const HtmlOptions& options) {
  if (!options.old.empty()) {
    throw UserError("--diff compares reports, and this is a JSON document: " + options.report,
                    "give the report itself, or what memleak diff --json has written");
  }
  return HtmlPage(ReadDocument(options.report));
}

}  // namespace

int HtmlCommand(const HtmlOptions& options) {
  const std::string page = IsJson(options.report) ? DocumentPage(options) : ReportPage(options);
  WritePage(page, options.output);
  std::cout << "page  " << options.output << " (" << FormatBytes(page.size())
            << "): open it in a browser\n";
  return kExitOk;
}

}  // namespace memleak
