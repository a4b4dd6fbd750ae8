// A shared object's bytes as a file: where its program headers, its dynamic section and the tables
// that this names lie. Used by the loader and the mutations of the index's fuzz target; one thread.
#pragma once

#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace fuzz {

/// A view of `size` bytes at `data`, which it neither owns nor changes. Nothing of it is trusted.
class ElfView {
 public:
  ElfView(const std::uint8_t* data, std::size_t size);

  /// Whether this is a 64-bit shared object whose program headers are there; without them all else
  /// is empty.
  bool ok() const { return !headers_.empty(); }
  const std::vector<Elf64_Phdr>& headers() const { return headers_; }
  std::size_t headers_offset() const { return headers_offset_; }

  /// The entries before DT_NULL.
  const std::vector<Elf64_Dyn>& dynamic() const { return dynamic_; }
  std::size_t dynamic_offset() const { return dynamic_offset_; }

  /// The value of the first entry with this tag; 0 without one.
  std::uint64_t Value(std::int64_t tag) const;

  /// Where the byte of this address is in the file; the file's size when it is not there.
  std::size_t FileOffset(std::uint64_t address) const;

  /// Copies the object at `offset`; false when the file ends before.
  template <typename T>
  bool Read(std::size_t offset, T& object) const {
    if (offset > size_ || size_ - offset < sizeof(T)) return false;
    std::memcpy(&object, data_ + offset, sizeof(T));
    return true;
  }

  /// Names of the first symbols, at most `most`; those without an end in the file are left out.
  std::vector<const char*> SymbolNames(std::size_t most) const;

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::vector<Elf64_Phdr> headers_;
  std::vector<Elf64_Dyn> dynamic_;
  std::size_t headers_offset_ = 0;
  std::size_t dynamic_offset_ = 0;
};

}  // namespace fuzz
