// SPDX-License-Identifier: Apache-2.0
// Profiles as a page for the browser. The page is built from web/ and embedded into the program.
// Single-threaded.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace memleak {

/// The page with "@DATA@" in place of its data. Empty in builds without the page. Defined by a
/// generated source.
std::string_view PageShell();

/// Writes the page for a document to the file at `path`: one file without external references.
/// `write` writes the document, of format "memleak-profile". Returns the page's size in bytes.
/// Throws UserError when that fails, and in builds without the page.
std::size_t WritePage(const std::function<void(std::ostream&)>& write, const std::string& path);

}  // namespace memleak
