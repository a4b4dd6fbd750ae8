// SPDX-License-Identifier: Apache-2.0
#include "tools/export/html.h"

#include "tools/base/output_file.h"
#include "tools/base/user_error.h"

namespace memleak {

std::size_t WritePage(const PageContent& content, const std::string& path) {
  constexpr std::string_view kDataMark = "@DATA@";
  const std::string_view shell = PageShell();
  const std::size_t mark = shell.find(kDataMark);
  if (mark == std::string_view::npos) {
    throw UserError("this build of memleak has no page",
                    "write it with a memleak built for this machine, with npm and no sanitizer");
  }
  const std::string data = PageData(content);
  OutputFile file(path);
  file.Stream() << shell.substr(0, mark) << data << shell.substr(mark + kDataMark.size());
  file.Commit();
  return shell.size() - kDataMark.size() + data.size();
}

std::size_t WriteDifferencePage(const Profile& before, const Profile& after,
                                const std::string& trend, const std::string& path) {
  const Difference difference = Compare(before, after);
  return WritePage({.report = after,
                    .groups = difference.merged,
                    .base = &before,
                    .changes = &difference.changes,
                    .trend = trend},
                   path);
}

}  // namespace memleak
