// SPDX-License-Identifier: Apache-2.0
// Writes JSON as it is produced: the document of a large profile has a hundred megabytes.
// Single-threaded.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <type_traits>

namespace memleak {

/// Writes one document on one line. Each value in an object needs a key. Errors are those of the
/// stream.
class JsonWriter {
 public:
  /// `out` lives longer than the writer.
  explicit JsonWriter(std::ostream& out) : out_(out) {}
  ~JsonWriter() { Flush(); }
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  void EndLine() { text_ += '\n'; }

  /// Before a value in an object.
  void Key(const char* name);

  /// An object, whose members `write` writes; with `name`, key and object.
  template <typename Write>
  void Object(Write write) {
    Open('{');
    write();
    Close('}');
  }
  template <typename Write>
  void Object(const char* name, Write write) {
    Key(name);
    Object(write);
  }

  /// Key and array: `write(item)` writes a value for each item of `list`.
  template <typename List, typename Write>
  void Array(const char* name, const List& list, Write write) {
    Key(name);
    Open('[');
    for (const auto& item : list) write(item);
    Close(']');
  }
  /// The same for values that are objects, of which `write(item)` writes the members.
  template <typename List, typename Write>
  void Objects(const char* name, const List& list, Write write) {
    Array(name, list, [&](const auto& item) { Object([&] { write(item); }); });
  }
  /// The same for the values `of(item)`; `of` may be a member of the item.
  template <typename List, typename Of>
  void Column(const char* name, const List& list, Of of) {
    Array(name, list, [&](const auto& item) { Value(std::invoke(of, item)); });
  }

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
  /// An array.
  template <std::ranges::range List>
  requires(!std::convertible_to<List, std::string_view>) void Value(const List& list) {
    Open('[');
    for (const auto& value : list) Value(value);
    Close(']');
  }

  /// Key and value.
  template <typename Any>
  void Member(const char* name, const Any& value) {
    Key(name);
    Value(value);
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
