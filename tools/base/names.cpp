// Character by character.
#include "tools/base/names.h"

#include <cstddef>

namespace memleak {
namespace {

struct Lead {
  std::size_t length = 0;   // bytes of the sequence, 0 for none
  std::uint32_t bits = 0;   // what the first byte contributes
  std::uint32_t least = 0;  // smaller values must be written shorter
};

Lead ReadLead(unsigned char byte) {
  if (byte < 0x80) return {1, byte, 0};
  if ((byte & 0xe0U) == 0xc0U) return {2, byte & 0x1fU, 0x80};
  if ((byte & 0xf0U) == 0xe0U) return {3, byte & 0x0fU, 0x800};
  if ((byte & 0xf8U) == 0xf0U) return {4, byte & 0x07U, 0x10000};
  return {};
}

// Each byte of `bytes` behind `mark`, as two of `digits`.
void AppendEscaped(std::string_view bytes, const char* mark, const char* digits,
                   std::string* text) {
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    *text += mark;
    *text += digits[byte >> 4U];
    *text += digits[byte & 0xfU];
  }
}

// `text` with each character as `append` writes it.
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
  const auto first = static_cast<unsigned char>(text.front());
  const Character none{text.substr(0, 1), first, false, false};
  const Lead lead = ReadLead(first);
  if (lead.length == 0 || lead.length > text.size()) return none;
  std::uint32_t value = lead.bits;
  for (std::size_t i = 1; i < lead.length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xc0U) != 0x80U) return none;
    value = (value << 6U) | (byte & 0x3fU);
  }
  const bool surrogate = value >= 0xd800 && value <= 0xdfff;
  if (value < lead.least || value > 0x10ffff || surrogate) return none;
  const bool control = value < 0x20 || (value >= 0x7f && value < 0xa0);
  return {text.substr(0, lead.length), value, true, !control};
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

}  // namespace memleak
