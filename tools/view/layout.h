// SPDX-License-Identifier: Apache-2.0
// Parts of printed lines. Used by all views and by `export`; single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace memleak {

inline constexpr std::size_t kColumns = 80;

/// `part` of `whole` as "51.2 %"; empty if `whole` is 0.
std::string Percent(std::uint64_t part, std::uint64_t whole);

/// "1 block", "1,234 blocks".
std::string Counted(std::uint64_t count, const std::string& noun);

/// The last part of a path.
std::string BaseName(const std::string& path);

/// `text` padded on the left to `width` columns.
std::string Right(const std::string& text, std::size_t width);

/// `first` and `second` with a blank between them if they fit into one line, else on two lines, the
/// second one indented by two.
std::string OneLineOrTwo(const std::string& first, const std::string& second);

/// Colours text, unless it is off.
class Paint {
 public:
  explicit Paint(bool on) : on_(on) {}
  /// For the main figure of a line.
  std::string Strong(const std::string& text) const { return Wrap("\033[1m", text); }
  /// For names of functions.
  std::string Name(const std::string& text) const { return Wrap("\033[36m", text); }
  /// For less important text.
  std::string Faint(const std::string& text) const { return Wrap("\033[2m", text); }

 private:
  std::string Wrap(std::string_view begin, const std::string& text) const {
    return on_ ? std::string(begin) + text + "\033[0m" : text;
  }
  bool on_;
};

}  // namespace memleak
