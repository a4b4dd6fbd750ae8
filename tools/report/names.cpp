// Byte by byte: names come from mappings and symbol tables, where anything can stand.
#include "tools/report/names.h"

#include <cstddef>
#include <cstdint>

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

// Length of the valid sequence that `text` begins with, 0 when there is none.
std::size_t SequenceLength(std::string_view text) {
  const Lead lead = ReadLead(static_cast<unsigned char>(text.front()));
  if (lead.length == 0 || lead.length > text.size()) return 0;
  std::uint32_t value = lead.bits;
  for (std::size_t i = 1; i < lead.length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xc0U) != 0x80U) return 0;
    value = (value << 6U) | (byte & 0x3fU);
  }
  const bool surrogate = value >= 0xd800 && value <= 0xdfff;
  return value < lead.least || value > 0x10ffff || surrogate ? 0 : lead.length;
}

}  // namespace

std::string ValidUtf8(std::string_view name) {
  std::string valid;
  valid.reserve(name.size());
  while (!name.empty()) {
    const std::size_t length = SequenceLength(name);
    valid += length == 0 ? std::string_view("\xef\xbf\xbd") : name.substr(0, length);
    name.remove_prefix(length == 0 ? 1 : length);
  }
  return valid;
}

std::string PercentEscape(std::string_view name) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(name.size());
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte > ' ' && byte != 0x7f && character != ';' && character != '%') {
      escaped += character;
      continue;
    }
    escaped += '%';
    escaped += kDigits[byte >> 4U];
    escaped += kDigits[byte & 0xfU];
  }
  return escaped;
}

}  // namespace memleak
