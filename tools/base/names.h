// Names that a watched process or a report chooses, as each kind of output can hold them: any bytes
// may stand in the name of a process, a file, a mapping or a function. Called by everything that
// prints or writes such names; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace memleak {

/// A character of UTF-8, or a byte that is part of none.
struct Character {
  std::string_view bytes;   ///< a part of the text
  std::uint32_t value = 0;  ///< its number in Unicode; that of the byte where that is part of none
  bool valid = false;       ///< it is UTF-8
  bool printable = false;   ///< it is UTF-8 and no control character: neither C0, DEL nor C1
};

/// The first character of `text`, which is not empty.
Character FirstCharacter(std::string_view text);

/// `text` for a terminal or a line of output: bytes of what is not printable are written as "\x1b"
/// and the like, so that a name can neither steer a terminal nor begin a line; the rest stays as it
/// is.
std::string Printable(std::string_view text);

/// `name` with bytes that are not part of valid UTF-8 replaced by U+FFFD.
std::string ValidUtf8(std::string_view name);

/// `name` with ';', '%', blanks and what is not printable written as "%3B" and the like, so that
/// neither a field nor a line ends inside it; the rest stays as it is.
std::string PercentEscape(std::string_view name);

}  // namespace memleak
