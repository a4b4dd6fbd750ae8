// A shared object laid out in memory as the dynamic linkers do it, but for relocation: whatever a
// segment does not make readable cannot be read.
//
// Used by the index's fuzz target; one thread.
#pragma once

#include <link.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/fuzz/elf_view.h"

namespace fuzz {

/// Owns the memory, unmapped at the end. Segments are mapped in their order, a later one over an
/// earlier one where they meet on a page. Guard pages stand before and behind; under
/// AddressSanitizer the rest of a segment's last page cannot be read either.
class ElfLoader {
 public:
  /// Maps the object of `view` (the file is `data`, copied), or refuses it.
  ElfLoader(const ElfView& view, const std::uint8_t* data, std::size_t size);
  ~ElfLoader();
  ElfLoader(const ElfLoader&) = delete;
  ElfLoader& operator=(const ElfLoader&) = delete;

  /// False for what a loader would not map either: no or too large segments, ones beyond the file's
  /// end, wrong alignment.
  bool loaded() const { return memory_ != nullptr; }
  const dl_phdr_info& info() const { return info_; }

  /// Whether all of `bytes` bytes at `address` can be read.
  bool Readable(const void* address, std::size_t bytes) const;

  /// Makes the addresses in the dynamic section absolute, as glibc does where it can write to it.
  void RelocateDynamicSection();

 private:
  bool Accept(std::size_t file_bytes);
  void MapSegment(const Elf64_Phdr& segment, const std::uint8_t* data);
  void PoisonOutside();
  bool Writable(std::uint64_t address, std::size_t bytes) const;
  std::uint8_t* At(std::uint64_t address) const;

  std::vector<Elf64_Phdr> headers_;
  dl_phdr_info info_{};
  std::uint64_t first_page_ = 0;
  std::size_t span_ = 0;  // bytes between the guard pages
  std::uint8_t* memory_ = nullptr;
  std::vector<int> protection_;  // of each page between the guard pages
};

}  // namespace fuzz
