// SPDX-License-Identifier: Apache-2.0
// Reads DWARF encodings from a range of memory. Any thread, any context.
#include "platform/cfi/table_reader.h"

namespace platform::cfi {
namespace {

// Formats and bases of pointers (DW_EH_PE_...).
constexpr std::uint8_t kAbsolute = 0x00;
constexpr std::uint8_t kUnsignedLeb = 0x01;
constexpr std::uint8_t kUnsigned2 = 0x02;
constexpr std::uint8_t kUnsigned4 = 0x03;
constexpr std::uint8_t kUnsigned8 = 0x04;
constexpr std::uint8_t kSignedLeb = 0x09;
constexpr std::uint8_t kSigned2 = 0x0a;
constexpr std::uint8_t kSigned4 = 0x0b;
constexpr std::uint8_t kSigned8 = 0x0c;
constexpr std::uint8_t kRelativeToItself = 0x10;
constexpr std::uint8_t kRelativeToData = 0x30;
constexpr std::uint8_t kAligned = 0x50;

constexpr unsigned kLebBits = 7;
constexpr unsigned kWordBits = 64;

template <typename T>
std::uint64_t Extend(T value) {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
}

}  // namespace

std::uint64_t TableReader::TakeUnsigned() {
  std::uint64_t value = 0;
  for (unsigned shift = 0;; shift += kLebBits) {
    const auto byte = Take<std::uint8_t>();
    if (shift < kWordBits) value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) return value;
  }
}

std::int64_t TableReader::TakeSigned() {
  std::uint64_t value = 0;
  unsigned shift = 0;
  std::uint8_t byte = 0;
  do {
    byte = Take<std::uint8_t>();
    if (shift < kWordBits) value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    shift += kLebBits;
  } while ((byte & 0x80) != 0);
  if (shift < kWordBits && (byte & 0x40) != 0) value |= ~std::uint64_t{0} << shift;
  return static_cast<std::int64_t>(value);
}

TableReader TableReader::TakeBlock() {
  const std::uint64_t bytes = TakeUnsigned();
  const std::uint64_t begin = at_;
  Skip(bytes);
  return ok() ? TableReader(begin, at_) : TableReader();
}

const char* TableReader::TakeText() {
  const auto* text = reinterpret_cast<const char*>(at_);
  while (Take<char>() != '\0') {
  }
  return ok() ? text : "";
}

std::uint64_t TableReader::TakeFormat(std::uint8_t encoding) {
  switch (encoding & kPointerFormat) {
    case kAbsolute:
    case kUnsigned8:
    case kSigned8:
      return Take<std::uint64_t>();
    case kUnsignedLeb:
      return TakeUnsigned();
    case kUnsigned2:
      return Take<std::uint16_t>();
    case kUnsigned4:
      return Take<std::uint32_t>();
    case kSignedLeb:
      return Extend(TakeSigned());
    case kSigned2:
      return Extend(Take<std::int16_t>());
    case kSigned4:
      return Extend(Take<std::int32_t>());
    default:
      Fail();
      return 0;
  }
}

std::uint64_t TableReader::TakePointer(std::uint8_t encoding, std::uint64_t data_base) {
  std::uint64_t base = 0;
  switch (encoding & ~kPointerFormat) {
    case kAbsolute:
      break;
    case kRelativeToItself:
      base = at_;
      break;
    case kRelativeToData:
      base = data_base;
      break;
    default:
      Fail();
      return 0;
  }
  const std::uint64_t value = TakeFormat(encoding);
  // As in the C++ runtime: 0 means no address, for any base.
  return value == 0 ? 0 : base + value;
}

void TableReader::SkipPointer(std::uint8_t encoding) {
  if (encoding == kPointerOmitted) return;
  if ((encoding & kPointerRelation) == kAligned) {
    Skip(-at_ % sizeof(std::uint64_t));
    Skip(sizeof(std::uint64_t));
    return;
  }
  TakeFormat(encoding);
}

}  // namespace platform::cfi
