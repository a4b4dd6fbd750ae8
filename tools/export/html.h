// A page that shows a profile in a browser: the page itself is built from web/ and embedded into
// the program; here it gets its data. Called by `html` and by whatever ends with a page;
// single-threaded.
#pragma once

#include <string>
#include <string_view>

#include "tools/report/model.h"

namespace memleak {

/// The page without its data, which replaces the first "@DATA@" in it. Empty in builds without the
/// page. Defined by a generated source.
std::string_view PageShell();

/// The page for `json`, a document of format "memleak-profile" in UTF-8: one file that needs
/// nothing else. Throws UserError in builds without the page.
std::string HtmlPage(const std::string& json);

/// The page for a report. Throws as above.
std::string HtmlPage(const Profile& profile);

/// Writes `page` to the file at `path`. Throws UserError when that fails.
void WritePage(const std::string& page, const std::string& path);

}  // namespace memleak
