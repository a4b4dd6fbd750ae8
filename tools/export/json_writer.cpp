// SPDX-License-Identifier: Apache-2.0
#include "tools/export/json_writer.h"

#include <array>
#include <charconv>
#include <cmath>
#include <ostream>

#include "tools/base/names.h"

namespace memleak {
namespace {

constexpr std::size_t kFlushBytes = 64U << 10U;

// Whether the byte stands for itself in a string.
bool IsPlain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\';
}

void AppendEscaped(std::string* text, std::uint32_t value) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  *text += "\\u00";
  *text += kDigits[value >> 4U & 15U];
  *text += kDigits[value & 15U];
}

template <typename Number>
void AppendNumber(std::string* text, Number number) {
  std::array<char, 32> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  text->append(digits.data(), end);
}

}  // namespace

void JsonWriter::Flush() {
  out_.write(text_.data(), static_cast<std::streamsize>(text_.size()));
  text_.clear();
}

void JsonWriter::Separate() {
  if (text_.size() >= kFlushBytes) Flush();
  if (separate_) text_ += ',';
  separate_ = true;
}

void JsonWriter::Open(char bracket) {
  Separate();
  text_ += bracket;
  separate_ = false;
}

void JsonWriter::Close(char bracket) {
  text_ += bracket;
  separate_ = true;
}

void JsonWriter::Key(const char* name) {
  Separate();
  text_ += '"';
  text_ += name;
  text_ += "\":";
  separate_ = false;
}

void JsonWriter::Value(std::string_view text) {
  Separate();
  text_ += '"';
  while (!text.empty()) {
    std::size_t plain = 0;
    while (plain < text.size() && IsPlain(text[plain])) ++plain;
    text_ += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const Character character = FirstCharacter(text);
    if (!character.valid) {
      text_ += "\xef\xbf\xbd";  // U+FFFD
    } else if (character.value == '"' || character.value == '\\' || !character.printable) {
      AppendEscaped(&text_, character.value);
    } else {
      text_ += character.bytes;
    }
    text.remove_prefix(character.bytes.size());
  }
  text_ += '"';
}

void JsonWriter::Value(bool value) {
  Separate();
  text_ += value ? "true" : "false";
}

void JsonWriter::Value(double value) {
  if (!std::isfinite(value)) return Null();
  Separate();
  AppendNumber(&text_, value);
}

void JsonWriter::Null() {
  Separate();
  text_ += "null";
}

void JsonWriter::Raw(std::string_view json) {
  Separate();
  text_ += json;
}

void JsonWriter::Integer(std::int64_t number) {
  Separate();
  AppendNumber(&text_, number);
}

void JsonWriter::Integer(std::uint64_t number) {
  Separate();
  AppendNumber(&text_, number);
}

}  // namespace memleak
