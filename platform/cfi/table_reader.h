// SPDX-License-Identifier: Apache-2.0
// Reads DWARF encodings from a range of memory.
//
// Any thread, any context. Never reads outside the range, even if its content is damaged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace platform::cfi {

/// Pointer encodings (Linux Standard Base, "DWARF Exception Header Encoding"). The low four bits
/// are the format, the next three the base that the value is relative to.
inline constexpr std::uint8_t kPointerOmitted = 0xff;
inline constexpr std::uint8_t kPointerFormat = 0x0f;
inline constexpr std::uint8_t kPointerRelation = 0x70;

/// A read position in a range of memory. A read beyond the end makes the reader fail: this read and
/// all later ones return 0. A default-constructed reader has failed. It has two words, so that it
/// fits in registers.
class TableReader {
 public:
  TableReader() = default;
  TableReader(std::uint64_t address, std::uint64_t end) : at_(address), end_(end) {
    if (at_ > end_) Fail();
  }

  bool ok() const { return end_ != 0; }
  bool empty() const { return at_ == end_; }
  std::uint64_t address() const { return at_; }
  std::uint64_t end() const { return end_; }

  void Skip(std::uint64_t bytes) {
    if (bytes > end_ - at_) return Fail();
    at_ += bytes;
  }

  /// Reads a number of fixed size.
  template <typename T>
  T Take() {
    T value{};
    if (sizeof(T) > end_ - at_) {
      Fail();
      return value;
    }
    std::memcpy(&value, reinterpret_cast<const void*>(at_), sizeof(T));
    at_ += sizeof(T);
    return value;
  }

  /// Read LEB128 numbers. Bits above 64 are dropped.
  std::uint64_t TakeUnsigned();
  std::int64_t TakeSigned();

  /// Reads a length and skips the block that follows. Returns a reader of the block.
  TableReader TakeBlock();

  /// Reads a NUL-terminated text. Returns an empty text if there is no NUL.
  const char* TakeText();

  /// Reads a pointer in `encoding`; `data_base` is the base for DW_EH_PE_datarel. Fails for
  /// encodings that no linker uses in call-frame information: omitted, indirect, and relative to
  /// text or function.
  std::uint64_t TakePointer(std::uint8_t encoding, std::uint64_t data_base);

  /// Skips a pointer in `encoding`, which may be indirect.
  void SkipPointer(std::uint8_t encoding);

 private:
  void Fail() {
    at_ = 0;
    end_ = 0;
  }
  std::uint64_t TakeFormat(std::uint8_t encoding);

  std::uint64_t at_ = 0;
  std::uint64_t end_ = 0;
};

}  // namespace platform::cfi
