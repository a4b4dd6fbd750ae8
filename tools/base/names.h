// SPDX-License-Identifier: Apache-2.0
// Escapes names from watched processes and reports for output. The name of a process, a file, a
// mapping or a function can contain any bytes. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace memleak {

/// A UTF-8 character, or a byte that is not part of one.
struct Character {
  std::string_view bytes;   ///< refers to the text
  std::uint32_t value = 0;  ///< code point, or the byte if it is not valid
  bool valid = false;       ///< valid UTF-8
  bool printable = false;   ///< valid and no control character (C0, DEL, C1)
};

/// The first character of `text`, which must not be empty.
Character FirstCharacter(std::string_view text);

/// `text` with bytes that are not printable escaped as in "\x1b", so that a name can neither
/// control a terminal nor break a line.
std::string Printable(std::string_view text);

/// `name` with bytes that are not part of valid UTF-8 replaced by U+FFFD.
std::string ValidUtf8(std::string_view name);

/// `name` with ';', '%', blanks and bytes that are not printable escaped as in "%3B", so that it
/// ends neither a field nor a line.
std::string PercentEscape(std::string_view name);

/// `names` with `separator` between them.
std::string Joined(const std::vector<std::string>& names, const char* separator = ", ");

}  // namespace memleak
