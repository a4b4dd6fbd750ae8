// Names of functions and files as other formats can hold them. Called by the writers of exports;
// single-threaded.
#pragma once

#include <string>
#include <string_view>

namespace memleak {

/// `name` with bytes that are not part of valid UTF-8 replaced by U+FFFD.
std::string ValidUtf8(std::string_view name);

/// `name` with ';', '%', blanks and control characters written as "%3B" and the like, so that
/// neither a field nor a line ends inside it; the rest stays as it is.
std::string PercentEscape(std::string_view name);

}  // namespace memleak
