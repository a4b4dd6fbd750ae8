// SPDX-License-Identifier: Apache-2.0
#include "tools/base/names.h"

#include <array>
#include <bit>
#include <cstddef>

namespace memleak {
namespace {

// Appends `mark` and two hexadecimal `digits` for each byte.
void AppendEscaped(std::string_view bytes, const char* mark, const char* digits,
                   std::string* text) {
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    *text += mark;
    *text += digits[byte >> 4U];
    *text += digits[byte & 0xfU];
  }
}

// Copies `text`, with `append` called for each character.
template <typename Append>
std::string Rewritten(std::string_view text, Append append) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    append(character, &result);
    text.remove_prefix(character.bytes.size());
  }
  return result;
}

}  // namespace

Character FirstCharacter(std::string_view text) {
  constexpr std::array<std::uint32_t, 5> kMinCodePoint = {0, 0, 0x80, 0x800, 0x10000};  // by length
  const auto first = static_cast<unsigned char>(text.front());
  const Character invalid{text.substr(0, 1), first, false, false};
  // Leading ones give the length of a sequence; ASCII has none.
  const auto ones = static_cast<std::size_t>(std::countl_one(first));
  const std::size_t length = ones == 0 ? 1 : ones;
  if (ones == 1 || length >= kMinCodePoint.size() || length > text.size()) return invalid;
  std::uint32_t value = first & (0xffU >> ones);
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xc0U) != 0x80U) return invalid;
    value = (value << 6U) | (byte & 0x3fU);
  }
  const bool surrogate = value >= 0xd800 && value <= 0xdfff;
  if (value < kMinCodePoint[length] || value > 0x10ffff || surrogate) return invalid;
  const bool control = value < 0x20 || (value >= 0x7f && value < 0xa0);
  return {text.substr(0, length), value, true, !control};
}

std::string Printable(std::string_view text) {
  return Rewritten(text, [](const Character& character, std::string* result) {
    if (character.printable) {
      *result += character.bytes;
    } else {
      AppendEscaped(character.bytes, "\\x", "0123456789abcdef", result);
    }
  });
}

std::string ValidUtf8(std::string_view name) {
  return Rewritten(name, [](const Character& character, std::string* result) {
    *result += character.valid ? character.bytes : "\xef\xbf\xbd";
  });
}

std::string PercentEscape(std::string_view name) {
  return Rewritten(name, [](const Character& character, std::string* result) {
    const std::uint32_t value = character.value;
    if (character.printable && value != ' ' && value != ';' && value != '%') {
      *result += character.bytes;
    } else {
      AppendEscaped(character.bytes, "%", "0123456789ABCDEF", result);
    }
  });
}

std::string Joined(const std::vector<std::string>& names, const char* separator) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : separator) + name;
  return text;
}

}  // namespace memleak
