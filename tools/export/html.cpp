// Puts data into the page.
#include "tools/export/html.h"

#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/base/output_file.h"
#include "tools/base/user_error.h"
#include "tools/export/json.h"

namespace memleak {
namespace {

constexpr std::string_view kDataMark = "@DATA@";

}  // namespace

std::string HtmlPage(const std::string& json) {
  const std::string_view shell = PageShell();
  const std::size_t mark = shell.find(kDataMark);
  if (mark == std::string_view::npos) {
    throw UserError("this build of memleak has no page",
                    "write it with a memleak built for this machine, with npm and no sanitizer");
  }
  std::string page;
  page.reserve(shell.size() + json.size() + json.size() / 16);
  page.append(shell.substr(0, mark));
  // Names may hold markup: without "<" nothing in them can end the element that the data stands in.
  // In JSON the character stands in strings alone.
  for (const char c : json) {
    if (c == '<') {
      page.append("\\u003c");
    } else {
      page.push_back(c);
    }
  }
  page.append(shell.substr(mark + kDataMark.size()));
  return page;
}

std::string HtmlPage(const Profile& profile) {
  std::ostringstream json;
  WriteJson(ToJson(profile), json);
  return HtmlPage(json.str());
}

void WritePage(const std::string& page, const std::string& path) {
  OutputFile file(path);
  file.Stream() << page;
  file.Commit();
}

}  // namespace memleak
