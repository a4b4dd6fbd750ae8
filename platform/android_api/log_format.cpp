// SPDX-License-Identifier: Apache-2.0
// A subset of printf for code that runs in signal handlers and inside the allocator.
#include "platform/android_api/log_format.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>

namespace platform {
namespace {

static_assert(sizeof(long) == sizeof(long long) && sizeof(long) == sizeof(std::size_t),
              "the lengths l, ll and z are one case");

/// The output. Counts the bytes that do not fit.
class Sink {
 public:
  Sink(char* text, std::size_t limit) : text_(text), limit_(limit) {}

  void Put(char c) {
    if (length_ + 1 < limit_) text_[length_] = c;
    ++length_;
  }
  void Put(const char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) Put(bytes[i]);
  }
  void Fill(char c, std::size_t count) {
    for (; count > 0; --count) Put(c);
  }
  std::size_t Finish() {
    text_[length_ < limit_ ? length_ : limit_ - 1] = '\0';
    return length_;
  }

 private:
  char* const text_;
  const std::size_t limit_;
  std::size_t length_ = 0;
};

/// The arguments, in a struct so that they can be passed by reference on every architecture.
struct Arguments {
  std::va_list list;
};

/// What follows a '%'.
struct Conversion {
  bool zeros = false;
  std::size_t width = 0;
  std::size_t precision = SIZE_MAX;
  bool is_long = false;
  char type = '\0';
};

std::size_t ParseNumber(const char*& at) {
  constexpr std::size_t kMaxNumber = 10000;  // longer than any line; prevents an overflow
  std::size_t number = 0;
  for (; *at >= '0' && *at <= '9'; ++at) {
    if (number < kMaxNumber) number = number * 10 + static_cast<std::size_t>(*at - '0');
  }
  return number;
}

/// Parses the conversion at `at`, after its '%', and advances `at` to its last character.
Conversion ParseConversion(const char*& at, Arguments& arguments) {
  Conversion conversion;
  conversion.zeros = *at == '0';
  conversion.width = ParseNumber(at);
  if (at[0] == '.' && at[1] == '*') {
    const int precision = va_arg(arguments.list, int);
    if (precision >= 0) conversion.precision = static_cast<std::size_t>(precision);
    at += 2;
  } else if (*at == '.') {
    conversion.precision = ParseNumber(++at);
  }
  for (; *at == 'l' || *at == 'z'; ++at) conversion.is_long = true;
  conversion.type = *at;
  return conversion;
}

void PutText(Sink& sink, const char* text, std::size_t length, std::size_t width) {
  if (width > length) sink.Fill(' ', width - length);
  sink.Put(text, length);
}

/// Puts `value` after `prefix`, which is a sign, "0x" or empty.
void PutNumber(Sink& sink, const Conversion& conversion, std::uint64_t value, const char* prefix,
               unsigned base) {
  char digits[20];
  std::size_t count = 0;
  do {
    digits[count++] = "0123456789abcdef"[value % base];
    value /= base;
  } while (value != 0);
  const std::size_t prefix_length = std::strlen(prefix);
  const std::size_t length = prefix_length + count;
  const std::size_t padding = conversion.width > length ? conversion.width - length : 0;
  if (!conversion.zeros) sink.Fill(' ', padding);
  sink.Put(prefix, prefix_length);
  if (conversion.zeros) sink.Fill('0', padding);
  while (count > 0) sink.Put(digits[--count]);
}

/// Puts one conversion. Returns false if its type is unknown.
bool PutConversion(Sink& sink, const Conversion& conversion, Arguments& arguments) {
  switch (conversion.type) {
    case 'd': {
      const std::int64_t value =
          conversion.is_long ? va_arg(arguments.list, long) : va_arg(arguments.list, int);
      const auto bits = static_cast<std::uint64_t>(value);
      PutNumber(sink, conversion, value < 0 ? 0 - bits : bits, value < 0 ? "-" : "", 10);
      return true;
    }
    case 'u':
    case 'x': {
      const std::uint64_t value = conversion.is_long ? va_arg(arguments.list, unsigned long)
                                                     : va_arg(arguments.list, unsigned int);
      PutNumber(sink, conversion, value, "", conversion.type == 'x' ? 16 : 10);
      return true;
    }
    case 'p':
      PutNumber(sink, conversion, reinterpret_cast<std::uintptr_t>(va_arg(arguments.list, void*)),
                "0x", 16);
      return true;
    case 's': {
      const char* text = va_arg(arguments.list, const char*);
      if (text == nullptr) text = "(null)";
      PutText(sink, text, strnlen(text, conversion.precision), conversion.width);
      return true;
    }
    case 'c': {
      const char text = static_cast<char>(va_arg(arguments.list, int));
      PutText(sink, &text, 1, conversion.width);
      return true;
    }
    case '%':
      sink.Put('%');
      return true;
    default:
      return false;
  }
}

}  // namespace

std::size_t FormatTextVaList(char* text, std::size_t limit, const char* format,
                             std::va_list arguments) {
  Sink sink(text, limit);
  Arguments copy;
  va_copy(copy.list, arguments);
  for (const char* at = format; *at != '\0'; ++at) {
    if (*at != '%') {
      sink.Put(*at);
      continue;
    }
    const char* const start = at++;
    const Conversion conversion = ParseConversion(at, copy);
    if (!PutConversion(sink, conversion, copy)) {
      sink.Put(start, std::strlen(start));
      break;
    }
  }
  va_end(copy.list);
  return sink.Finish();
}

std::size_t FormatText(char* text, std::size_t limit, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const std::size_t length = FormatTextVaList(text, limit, format, arguments);
  va_end(arguments);
  return length;
}

}  // namespace platform
