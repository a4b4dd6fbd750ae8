// SPDX-License-Identifier: Apache-2.0
// A shared object as a file, and laid out in memory as the dynamic linkers do it, but for
// relocation. Used by the index's fuzz target and its mutations; one thread.
#pragma once

#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/fuzz/support.h"

namespace fuzz {

/// A view of `size` bytes at `data`, which it neither owns nor changes. Nothing of it is trusted.
/// Owns the memory that it is loaded into.
class ElfImage {
 public:
  ElfImage(const std::uint8_t* data, std::size_t size);
  ~ElfImage();
  ElfImage(const ElfImage&) = delete;
  ElfImage& operator=(const ElfImage&) = delete;

  /// The program headers; without them, as for what is no 64-bit shared object, all else is empty.
  const std::vector<Elf64_Phdr>& headers() const { return headers_; }
  std::size_t headers_offset() const { return headers_offset_; }
  /// The entries before DT_NULL.
  const std::vector<Elf64_Dyn>& dynamic() const { return dynamic_; }
  std::size_t dynamic_offset() const { return dynamic_header_.p_offset; }
  /// The value of the first entry with this tag; 0 without one.
  std::uint64_t Value(std::int64_t tag) const;
  /// Where the byte of this address is in the file; the file's size when it is not there.
  std::size_t FileOffset(std::uint64_t address) const;
  /// Names of the first symbols, at most `most`; those without an end in the file are left out.
  std::vector<const char*> SymbolNames(std::size_t most) const;

  /// Maps the segments in their order, a later one over an earlier one where they meet on a page:
  /// what none makes readable cannot be read. Guard pages stand before and behind; under
  /// AddressSanitizer the rest of a segment's last page cannot be read either. False for what a
  /// loader would not map: no or too large segments, ones beyond the file's end, wrong alignment.
  bool Load();
  const dl_phdr_info& info() const { return info_; }
  /// Whether all of `bytes` bytes at `address` belong to the loaded object and can be read.
  bool Readable(const void* address, std::size_t bytes) const;
  /// Makes the addresses in the dynamic section absolute, as glibc does where it can write to it.
  void RelocateDynamicSection();

 private:
  template <typename T>
  bool Read(std::size_t offset, T& object) const {
    if (offset > size_ || size_ - offset < sizeof(T)) return false;
    std::memcpy(&object, data_ + offset, sizeof(T));
    return true;
  }
  bool Acceptable();
  void Map(const Elf64_Phdr& segment) const;
  bool Writable(std::uint64_t address, std::size_t bytes) const;
  std::uint8_t* At(std::uint64_t address) const { return memory_ + (address - first_page_); }

  const std::uint8_t* data_;
  std::size_t size_;
  std::vector<Elf64_Phdr> headers_;
  std::size_t headers_offset_ = 0;
  Elf64_Phdr dynamic_header_{};
  std::vector<Elf64_Dyn> dynamic_;
  dl_phdr_info info_{};
  std::uint64_t first_page_ = 0;
  std::size_t span_ = 0;  // bytes between the guard pages
  std::uint8_t* memory_ = nullptr;
};

}  // namespace fuzz
