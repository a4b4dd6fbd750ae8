// SPDX-License-Identifier: Apache-2.0
#include "tools/export/html.h"

#include <sstream>

#include "tools/base/output_file.h"
#include "tools/base/user_error.h"
#include "tools/export/json.h"

namespace memleak {

std::size_t WritePage(const nlohmann::json& document, const std::string& path) {
  constexpr std::string_view kDataMark = "@DATA@";
  const std::string_view shell = PageShell();
  const std::size_t mark = shell.find(kDataMark);
  if (mark == std::string_view::npos) {
    throw UserError("this build of memleak has no page",
                    "write it with a memleak built for this machine, with npm and no sanitizer");
  }
  std::ostringstream text;
  WriteJson(document, text);
  std::string page(shell.substr(0, mark));
  // Names may contain markup. Without "<" they cannot end the script element that holds the data.
  // In JSON "<" occurs in strings only.
  for (const char c : text.view()) {
    if (c == '<') {
      page.append("\\u003c");
    } else {
      page.push_back(c);
    }
  }
  page.append(shell.substr(mark + kDataMark.size()));
  OutputFile file(path);
  file.Stream() << page;
  file.Commit();
  return page.size();
}

}  // namespace memleak
