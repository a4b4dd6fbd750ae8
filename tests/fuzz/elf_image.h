// SPDX-License-Identifier: Apache-2.0
// A shared object as a file, and mapped into memory as by a dynamic linker, but not relocated. The
// fuzz target of the index and its mutator use it. One thread.
#pragma once

#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/fuzz/support.h"

namespace fuzz {

/// A view of `size` bytes at `data`, which it neither owns nor changes. All contents are untrusted.
/// Owns the memory into which the object is loaded.
class ElfImage {
 public:
  ElfImage(const std::uint8_t* data, std::size_t size);
  ~ElfImage();
  ElfImage(const ElfImage&) = delete;
  ElfImage& operator=(const ElfImage&) = delete;

  /// The program headers. Empty, like all else, if the file is not a 64-bit shared object.
  const std::vector<Elf64_Phdr>& headers() const { return headers_; }
  std::size_t headers_offset() const { return headers_offset_; }
  /// The entries before DT_NULL.
  const std::vector<Elf64_Dyn>& dynamic() const { return dynamic_; }
  std::size_t dynamic_offset() const { return dynamic_offset_; }
  /// The value of the first entry with this tag; 0 without one.
  std::uint64_t Value(std::int64_t tag) const;
  /// The file offset of the table whose address this entry has; the file's size if the file does
  /// not contain it.
  std::size_t TableOffset(std::int64_t tag) const;
  /// The names of the first symbols, at most `most`. Skips names that do not end in the file.
  std::vector<const char*> SymbolNames(std::size_t most) const;

  /// Maps the segments in order. On a shared page a later segment replaces an earlier one. Bytes
  /// that no segment makes readable cannot be read. There are guard pages before and after. With
  /// AddressSanitizer the rest of a segment's last page cannot be read either. Returns false if a
  /// loader would not map the file: no segments, too large ones, segments beyond the end of the
  /// file, or wrong alignment.
  bool Load();
  const dl_phdr_info& info() const { return info_; }
  /// Whether the kernel can read `bytes` bytes at `address`, inside the loaded object.
  bool Readable(const void* address, std::size_t bytes) const;

 private:
  template <typename T>
  bool Read(std::size_t offset, T& object) const {
    if (offset > size_ || size_ - offset < sizeof(T)) return false;
    std::memcpy(&object, data_ + offset, sizeof(T));
    return true;
  }
  bool Acceptable();
  void Map(const Elf64_Phdr& segment) const;

  const std::uint8_t* data_;
  std::size_t size_;
  std::vector<Elf64_Phdr> headers_;
  std::size_t headers_offset_ = 0;
  std::vector<Elf64_Dyn> dynamic_;
  std::size_t dynamic_offset_ = 0;
  dl_phdr_info info_{};
  std::uint64_t first_page_ = 0;
  std::size_t span_ = 0;  // bytes between the guard pages
  std::uint8_t* memory_ = nullptr;
};

}  // namespace fuzz
