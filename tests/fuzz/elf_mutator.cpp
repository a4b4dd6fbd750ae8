// SPDX-License-Identifier: Apache-2.0
// Mutations of shared objects. They keep what a loader checks and damage what the index reads:
// dynamic entries, hash tables, symbols, relocations. libFuzzer and the replay call it on one
// thread. A seed gives the same mutation on every machine.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "tests/fuzz/elf_image.h"

namespace {

constexpr std::array<std::uint64_t, 11> kTags = {DT_NULL,   DT_PLTRELSZ, DT_HASH,    DT_STRTAB,
                                                 DT_SYMTAB, DT_RELA,     DT_REL,     DT_RELASZ,
                                                 DT_JMPREL, DT_RELSZ,    DT_GNU_HASH};

/// A number in the file. It may be the tag of a dynamic entry.
struct Field {
  std::size_t offset, bytes;
  bool is_tag = false;
};

class Mutation {
 public:
  Mutation(std::uint8_t* data, std::size_t size, const fuzz::ElfImage& image, unsigned int seed)
      : data_(data), size_(size), image_(image), random_(seed) {}

  std::uint64_t Below(std::uint64_t bound) { return random_() % bound; }

  template <typename List>
  auto Any(const List& list) {
    return list[Below(list.size())];
  }

  void Apply() {
    const Field field = PickField();
    if (field.offset > size_ || size_ - field.offset < field.bytes) return;
    std::uint64_t value = 0;
    std::memcpy(&value, data_ + field.offset, field.bytes);
    value = field.is_tag ? Any(kTags) : PickValue(value);
    std::memcpy(data_ + field.offset, &value, field.bytes);
  }

 private:
  std::size_t Table(std::int64_t tag) const { return image_.FileOffset(image_.Value(tag)); }

  Field PickField() {
    const std::size_t header =
        image_.headers_offset() + Below(image_.headers().size()) * sizeof(Elf64_Phdr);
    const std::array<Field, 5> in_header = {{{header + offsetof(Elf64_Phdr, p_type), 4},
                                             {header + offsetof(Elf64_Phdr, p_flags), 4},
                                             {header + offsetof(Elf64_Phdr, p_vaddr), 8},
                                             {header + offsetof(Elf64_Phdr, p_filesz), 8},
                                             {header + offsetof(Elf64_Phdr, p_memsz), 8}}};
    const std::size_t entry =
        image_.dynamic_offset() + Below(image_.dynamic().size() + 2) * sizeof(Elf64_Dyn);
    const Field value = {entry + offsetof(Elf64_Dyn, d_un), 8};
    const std::array<Field, 10> fields = {
        {Any(in_header),
         {entry, 8, true},
         value,
         value,
         {Table(DT_GNU_HASH) + Below(4) * 4, 4},
         {Table(DT_GNU_HASH) + Below(64) * 4, 4},
         {Table(DT_HASH) + (Below(2) != 0 ? Below(2) : Below(64)) * 4, 4},
         {Table(DT_SYMTAB) + Below(32) * sizeof(Elf64_Sym), 4},
         InRelocation(DT_JMPREL, DT_PLTRELSZ),
         InRelocation(DT_RELA, DT_RELASZ)}};
    return Any(fields);
  }

  Field InRelocation(std::int64_t table, std::int64_t bytes) {
    const std::uint64_t count = image_.Value(bytes) / sizeof(Elf64_Rela);
    const std::size_t entry =
        Table(table) + Below(std::max<std::uint64_t>(count, 1)) * sizeof(Elf64_Rela);
    // The slot, or the upper half of r_info, which is the symbol.
    if (Below(2) != 0) return {entry, 8};
    return {entry + offsetof(Elf64_Rela, r_info) + 4, 4};
  }

  /// A wrong value: a limit, a value near the old one, the address of another table, or a count
  /// that is just valid or just too large.
  std::uint64_t PickValue(std::uint64_t old) {
    constexpr std::array<std::uint64_t, 4> kUnits = {1, 4, 8, 24};
    const Elf64_Phdr& segment = Any(image_.headers());
    const std::uint64_t end = segment.p_vaddr + segment.p_memsz;
    const std::uint64_t table = image_.dynamic().empty() ? 0 : Any(image_.dynamic()).d_un.d_val;
    const std::uint64_t near = Below(49) - 24;  // around 0, in unsigned arithmetic
    const std::array<std::uint64_t, 9> values = {Below(4),
                                                 ~std::uint64_t{0} >> Below(64),
                                                 old + near,
                                                 old ^ (std::uint64_t{1} << Below(64)),
                                                 segment.p_vaddr + near,
                                                 end + near,
                                                 table + near,
                                                 (end - table) / Any(kUnits) + Below(5) - 2,
                                                 random_()};
    return Any(values);
  }

  std::uint8_t* data_;
  std::size_t size_;
  const fuzz::ElfImage& image_;
  std::mt19937_64 random_;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

/// libFuzzer's hook. Changes the `size` bytes at `data`, where `most` bytes fit. Returns the new
/// size.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned int seed) {
  const fuzz::ElfImage image(data, size);
  Mutation mutation(data, size, image, seed);
  if (image.headers().empty() || mutation.Below(16) == 0) return LLVMFuzzerMutate(data, size, most);
  for (std::uint64_t left = 1 + mutation.Below(4); left != 0; --left) mutation.Apply();
  return size;
}
