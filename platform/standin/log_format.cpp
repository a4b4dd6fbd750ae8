// printf-like formatting that may run in a signal handler and inside an allocator.
#include "platform/standin/log_format.h"

#include <cstdint>
#include <cstring>

namespace platform {
namespace {

/// The text under construction; counts what no longer fits.
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

enum class Length { kChar, kShort, kInt, kLong, kLongLong, kSize };

/// What stands between a '%' and its conversion character.
struct Conversion {
  bool left = false;
  bool zeros = false;
  bool has_precision = false;
  std::size_t width = 0;
  std::size_t precision = 0;
  Length length = Length::kInt;
  char type = '\0';
};

/// The arguments, in a struct so that functions can take them by reference everywhere.
struct Arguments {
  std::va_list list;
};

const char* ParseCount(const char* at, Arguments& arguments, int& count) {
  count = 0;
  if (*at == '*') {
    count = va_arg(arguments.list, int);
    return at + 1;
  }
  // Counts beyond any line's length are held at a bound, so that they cannot overflow.
  for (; *at >= '0' && *at <= '9'; ++at) count = count < 10000 ? count * 10 + (*at - '0') : count;
  return at;
}

const char* ParseLength(const char* at, Length& length) {
  switch (*at) {
    case 'h':
      length = at[1] == 'h' ? Length::kChar : Length::kShort;
      return at + (length == Length::kChar ? 2 : 1);
    case 'l':
      length = at[1] == 'l' ? Length::kLongLong : Length::kLong;
      return at + (length == Length::kLongLong ? 2 : 1);
    case 'z':
      length = Length::kSize;
      return at + 1;
    default:
      return at;
  }
}

/// Reads a conversion from `at`, which stands behind its '%'. Returns its last character.
const char* ParseConversion(const char* at, Arguments& arguments, Conversion& conversion) {
  for (; *at == '0' || *at == '-'; ++at) (*at == '0' ? conversion.zeros : conversion.left) = true;
  int count = 0;
  at = ParseCount(at, arguments, count);
  if (count < 0) conversion.left = true;
  conversion.width = static_cast<std::size_t>(count < 0 ? -static_cast<long>(count) : count);
  if (*at == '.') {
    at = ParseCount(at + 1, arguments, count);
    conversion.has_precision = count >= 0;
    conversion.precision = static_cast<std::size_t>(count >= 0 ? count : 0);
  }
  at = ParseLength(at, conversion.length);
  conversion.type = *at;
  return at;
}

std::int64_t TakeSigned(Length length, Arguments& arguments) {
  switch (length) {
    case Length::kChar:
      return static_cast<signed char>(va_arg(arguments.list, int));
    case Length::kShort:
      return static_cast<short>(va_arg(arguments.list, int));
    case Length::kInt:
      return va_arg(arguments.list, int);
    case Length::kLong:
      return va_arg(arguments.list, long);
    case Length::kLongLong:
      return va_arg(arguments.list, long long);
    case Length::kSize:
      return static_cast<std::int64_t>(va_arg(arguments.list, std::size_t));
  }
  return 0;
}

std::uint64_t TakeUnsigned(Length length, Arguments& arguments) {
  switch (length) {
    case Length::kChar:
      return static_cast<unsigned char>(va_arg(arguments.list, unsigned int));
    case Length::kShort:
      return static_cast<unsigned short>(va_arg(arguments.list, unsigned int));
    case Length::kInt:
      return va_arg(arguments.list, unsigned int);
    case Length::kLong:
      return va_arg(arguments.list, unsigned long);
    case Length::kLongLong:
      return va_arg(arguments.list, unsigned long long);
    case Length::kSize:
      return va_arg(arguments.list, std::size_t);
  }
  return 0;
}

void PutText(Sink& sink, const Conversion& conversion, const char* text) {
  if (text == nullptr) text = "(null)";
  const std::size_t count =
      conversion.has_precision ? strnlen(text, conversion.precision) : std::strlen(text);
  const std::size_t padding = conversion.width > count ? conversion.width - count : 0;
  if (!conversion.left) sink.Fill(' ', padding);
  sink.Put(text, count);
  if (conversion.left) sink.Fill(' ', padding);
}

/// Puts `value` behind `prefix` (a sign or "0x").
void PutNumber(Sink& sink, const Conversion& conversion, std::uint64_t value, const char* prefix,
               unsigned base) {
  const char* alphabet = conversion.type == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  char digits[20];
  std::size_t count = 0;
  for (; value != 0; value /= base) digits[count++] = alphabet[value % base];
  // A precision is a least number of digits, of which an explicit zero may leave none at all.
  const std::size_t least = conversion.has_precision ? conversion.precision : 1;
  std::size_t zeros = least > count ? least - count : 0;
  const std::size_t prefix_length = std::strlen(prefix);
  const std::size_t used = prefix_length + zeros + count;
  std::size_t padding = conversion.width > used ? conversion.width - used : 0;
  if (conversion.zeros && !conversion.left && !conversion.has_precision) {
    zeros += padding;
    padding = 0;
  }
  if (!conversion.left) sink.Fill(' ', padding);
  sink.Put(prefix, prefix_length);
  sink.Fill('0', zeros);
  while (count > 0) sink.Put(digits[--count]);
  if (conversion.left) sink.Fill(' ', padding);
}

/// Puts one conversion. False when its type is not known.
bool PutConversion(Sink& sink, Conversion& conversion, Arguments& arguments) {
  switch (conversion.type) {
    case 'd':
    case 'i': {
      const std::int64_t value = TakeSigned(conversion.length, arguments);
      const auto bits = static_cast<std::uint64_t>(value);
      PutNumber(sink, conversion, value < 0 ? 0 - bits : bits, value < 0 ? "-" : "", 10);
      return true;
    }
    case 'u':
      PutNumber(sink, conversion, TakeUnsigned(conversion.length, arguments), "", 10);
      return true;
    case 'x':
    case 'X':
      PutNumber(sink, conversion, TakeUnsigned(conversion.length, arguments), "", 16);
      return true;
    case 'p': {
      const auto address = reinterpret_cast<std::uintptr_t>(va_arg(arguments.list, void*));
      PutNumber(sink, conversion, address, "0x", 16);
      return true;
    }
    case 's':
      PutText(sink, conversion, va_arg(arguments.list, const char*));
      return true;
    case 'c': {
      const char text = static_cast<char>(va_arg(arguments.list, int));
      const std::size_t padding = conversion.width > 1 ? conversion.width - 1 : 0;
      if (!conversion.left) sink.Fill(' ', padding);
      sink.Put(text);
      if (conversion.left) sink.Fill(' ', padding);
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
  Arguments taken;
  va_copy(taken.list, arguments);
  for (const char* at = format; *at != '\0'; ++at) {
    if (*at != '%') {
      sink.Put(*at);
      continue;
    }
    Conversion conversion;
    const char* last = ParseConversion(at + 1, taken, conversion);
    if (!PutConversion(sink, conversion, taken)) {
      sink.Put(at, std::strlen(at));
      break;
    }
    at = last;
  }
  va_end(taken.list);
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
