// SPDX-License-Identifier: Apache-2.0
// Reads DWARF's encodings from memory with an end.
//
// Any thread, any context. Whatever the bytes are, nothing outside them is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace platform::cfi {

/// Pointer encodings (Linux Standard Base, "DWARF Exception Header Encoding"). The low four bits
/// are the format, the next three what the value is relative to.
inline constexpr std::uint8_t kPointerOmitted = 0xff;
inline constexpr std::uint8_t kPointerFormat = 0x0f;
inline constexpr std::uint8_t kPointerRelation = 0x70;

/// A read position in memory. After a read beyond the end it has failed: that read and all later
/// ones yield 0. A default-constructed reader has failed. Two words, so that registers hold it.
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

  /// A number as it lies in memory.
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

  /// LEB128 numbers. Bits beyond 64 are lost.
  std::uint64_t TakeUnsigned();
  std::int64_t TakeSigned();

  /// A block behind its length: a reader of the block.
  TableReader TakeBlock();

  /// A NUL-terminated text; an empty one when it has no end.
  const char* TakeText();

  /// A pointer in `encoding`; `data_base` is what DW_EH_PE_datarel is relative to. Fails for what
  /// no linker writes into call-frame information: omitted, indirect, relative to text or function.
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
