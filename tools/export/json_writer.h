// SPDX-License-Identifier: Apache-2.0
// Writes JSON as it is produced: the document of a large profile has a hundred megabytes.
// Single-threaded.
#pragma once

#include <concepts>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace memleak {

/// Writes one document on one line. The caller pairs calls of Begin and End and gives each member
/// of an object a key. Errors are those of the stream.
class JsonWriter {
 public:
  /// `out` lives longer than the writer.
  explicit JsonWriter(std::ostream& out) : out_(out) {}
  ~JsonWriter() { Flush(); }
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  void BeginObject() { Open('{'); }
  void EndObject() { Close('}'); }
  void BeginArray() { Open('['); }
  void EndArray() { Close(']'); }

  void EndLine() { text_ += '\n'; }

  /// Before a value, a BeginObject or a BeginArray in an object.
  void Key(const char* name);

  /// Each byte that is not part of valid UTF-8 is replaced by U+FFFD, and all control characters
  /// are escaped.
  void Value(std::string_view text);
  void Value(const char* text) { Value(std::string_view(text)); }
  void Value(bool value);
  /// "null" if it is not finite.
  void Value(double value);
  template <std::integral Number>
  void Value(Number number) {
    if constexpr (std::is_signed_v<Number>) {
      Integer(std::int64_t{number});
    } else {
      Integer(std::uint64_t{number});
    }
  }
  void Null();
  /// A value that is JSON already.
  void Raw(std::string_view json);
  /// The value, or "null".
  template <typename Any>
  void Value(const std::optional<Any>& value) {
    if (value) {
      Value(*value);
    } else {
      Null();
    }
  }

  /// Key and value.
  template <typename Any>
  void Member(const char* name, const Any& value) {
    Key(name);
    Value(value);
  }
  /// Key and array.
  template <typename List>
  void MemberList(const char* name, const List& list) {
    Key(name);
    BeginArray();
    for (const auto& value : list) Value(value);
    EndArray();
  }

 private:
  void Separate();
  void Open(char bracket);
  void Close(char bracket);
  void Integer(std::int64_t number);
  void Integer(std::uint64_t number);
  void Flush();

  std::ostream& out_;
  std::string text_;
  bool separate_ = false;  // the next value or key follows another one
};

}  // namespace memleak
