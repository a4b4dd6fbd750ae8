// SPDX-License-Identifier: Apache-2.0
// Reads lines and their parts, for the parsers of reports and profiles. Single-threaded.
#pragma once

#include <charconv>
#include <cstddef>
#include <istream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace memleak {

/// The longest line in bytes; the deepest stack of long names takes less.
inline constexpr std::size_t kMaxLineBytes = 64U << 20U;

/// A cursor over one line. Each Take consumes what it matches, or nothing.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : rest_(text) {}

  bool Take(std::string_view literal) {
    if (!rest_.starts_with(literal)) return false;
    rest_.remove_prefix(literal.size());
    return true;
  }

  template <typename T>
  bool TakeNumber(T* value, int base = 10) {
    const char* end = rest_.data() + rest_.size();
    const auto result = std::from_chars(rest_.data(), end, *value, base);
    if (result.ec != std::errc()) return false;
    rest_.remove_prefix(static_cast<std::size_t>(result.ptr - rest_.data()));
    return true;
  }

  /// Takes all up to the next `separator`, and the separator if there is one.
  std::string_view TakeUntil(char separator) {
    const std::size_t end = rest_.find(separator);
    const std::string_view taken = rest_.substr(0, end);
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    return taken;
  }

  void Skip(std::size_t bytes) { rest_.remove_prefix(bytes); }
  std::string_view Rest() const { return rest_; }
  bool AtEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

/// How a line ended.
enum class LineEnd { kClosed, kOpen, kTooLong, kNothing };

/// Reads lines of limited length.
class LineReader {
 public:
  explicit LineReader(std::istream& input) : input_(input), piece_(kPieceBytes) {}

  /// The next line without its newline, valid until the next call; kOpen for a last line without
  /// a newline.
  LineEnd Next(std::string_view* line) {
    line_.clear();
    bool too_long = false;
    for (;;) {
      input_.getline(piece_.data(), kPieceBytes);
      const bool closed = input_.good();  // not so if the piece is full
      const auto bytes = static_cast<std::size_t>(input_.gcount()) - (closed ? 1 : 0);
      too_long = too_long || line_.size() + bytes > kMaxLineBytes;
      if (!too_long) line_.append(piece_.data(), bytes);
      if (closed || input_.eof()) {
        *line = line_;
        if (too_long) return LineEnd::kTooLong;
        if (closed) return LineEnd::kClosed;
        return line_.empty() ? LineEnd::kNothing : LineEnd::kOpen;
      }
      input_.clear();
    }
  }

 private:
  static constexpr std::size_t kPieceBytes = 64U << 10U;

  std::istream& input_;
  std::vector<char> piece_;
  std::string line_;
};

}  // namespace memleak
