// SPDX-License-Identifier: Apache-2.0
// Parts of printed lines.
#include "tools/view/layout.h"

#include <array>
#include <cstdio>

#include "tools/base/format.h"

namespace memleak {

std::string Percent(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) return "";
  std::array<char, 16> text{};
  const double share = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
  // The sums of a damaged report may exceed its total.
  if (share >= 1000.0) return ">999 %";
  std::snprintf(text.data(), text.size(), "%.1f %%", share);
  return text.data();
}

std::string Counted(std::uint64_t count, const std::string& noun) {
  return FormatCount(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string OneLineOrTwo(const std::string& first, const std::string& second) {
  const bool fits = Columns(first) + 1 + Columns(second) <= kColumns;
  return first + (fits ? " " : "\n  ") + second;
}

std::string BaseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string Right(const std::string& text, std::size_t width) {
  const std::size_t columns = Columns(text);
  return columns < width ? std::string(width - columns, ' ') + text : text;
}

}  // namespace memleak
