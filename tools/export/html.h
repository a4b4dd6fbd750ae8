// SPDX-License-Identifier: Apache-2.0
// Profiles as a page for the browser. The page is built from web/ and embedded into the program.
// Single-threaded.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace memleak {

/// The page with "@DATA@" in place of its data. Empty in builds without the page. Defined by a
/// generated source.
std::string_view PageShell();

/// The page for a document of format "memleak-profile": one file without external references.
/// Throws UserError in builds without the page.
std::string HtmlPage(const nlohmann::json& document);

/// Writes `page` to the file at `path`. Throws UserError when that fails.
void WritePage(const std::string& page, const std::string& path);

}  // namespace memleak
