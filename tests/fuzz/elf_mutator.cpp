// Mutations of shared objects that keep what a loader looks at and damage what the index reads:
// dynamic entries, hash tables, symbols, relocations. Called by libFuzzer and by the replay; one
// thread. The same seed makes the same mutation everywhere.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "tests/fuzz/elf_view.h"
#include "tests/fuzz/support.h"

namespace {

using fuzz::ElfView;

constexpr std::array<std::int64_t, 11> kTags = {DT_NULL,   DT_PLTRELSZ, DT_HASH,    DT_STRTAB,
                                                DT_SYMTAB, DT_RELA,     DT_REL,     DT_RELASZ,
                                                DT_JMPREL, DT_RELSZ,    DT_GNU_HASH};

/// A number in the file.
struct Field {
  std::size_t offset = 0;
  std::size_t bytes = 0;
};

class Mutation {
 public:
  Mutation(std::uint8_t* data, std::size_t size, const ElfView& view, unsigned int seed)
      : data_(data), size_(size), view_(view), random_(seed) {}

  void Apply() {
    const Field field = PickField();
    if (field.bytes == 0 || field.offset > size_ || size_ - field.offset < field.bytes) return;
    std::uint64_t value = 0;
    std::memcpy(&value, data_ + field.offset, field.bytes);
    value = PickValue(value);
    std::memcpy(data_ + field.offset, &value, field.bytes);
  }

  std::uint64_t Below(std::uint64_t bound) { return random_() % bound; }

 private:
  template <typename List>
  const auto& Any(const List& list) {
    return list[Below(list.size())];
  }

  Field PickField() {
    const std::size_t entry =
        view_.dynamic_offset() + Below(view_.dynamic().size() + 2) * sizeof(Elf64_Dyn);
    switch (Below(10)) {
      case 0:
        return HeaderField();
      case 1:
        SetTag(entry);
        return {};
      case 2:
      case 3:
        return {entry + offsetof(Elf64_Dyn, d_un), sizeof(std::uint64_t)};
      case 4:
        return {Table(DT_GNU_HASH) + Below(4) * 4, 4};
      case 5:
        return {Table(DT_GNU_HASH) + Below(64) * 4, 4};
      case 6:
        return {Table(DT_HASH) + (Below(2) != 0 ? Below(2) : Below(64)) * 4, 4};
      case 7:
        return {Table(DT_SYMTAB) + Below(32) * sizeof(Elf64_Sym), 4};
      case 8:
        return RelocationField(DT_JMPREL, DT_PLTRELSZ);
      default:
        return RelocationField(DT_RELA, DT_RELASZ);
    }
  }

  std::size_t Table(std::int64_t tag) const { return view_.FileOffset(view_.Value(tag)); }

  void SetTag(std::size_t entry) {
    const std::int64_t tag = Any(kTags);
    if (entry < size_ && size_ - entry >= sizeof(tag)) {
      std::memcpy(data_ + entry, &tag, sizeof(tag));
    }
  }

  Field HeaderField() {
    constexpr std::array<Field, 5> kFields = {{{offsetof(Elf64_Phdr, p_type), 4},
                                               {offsetof(Elf64_Phdr, p_flags), 4},
                                               {offsetof(Elf64_Phdr, p_vaddr), 8},
                                               {offsetof(Elf64_Phdr, p_filesz), 8},
                                               {offsetof(Elf64_Phdr, p_memsz), 8}}};
    Field field = Any(kFields);
    field.offset += view_.headers_offset() + Below(view_.headers().size()) * sizeof(Elf64_Phdr);
    return field;
  }

  Field RelocationField(std::int64_t table, std::int64_t bytes) {
    const std::uint64_t count = view_.Value(bytes) / sizeof(Elf64_Rela);
    const std::size_t entry =
        Table(table) + Below(std::max<std::uint64_t>(count, 1)) * sizeof(Elf64_Rela);
    // The slot, or the upper half of the information, which is the symbol.
    if (Below(2) != 0) return {entry, 8};
    return {entry + offsetof(Elf64_Rela, r_info) + 4, 4};
  }

  /// What a wrong number looks like: an end, a neighbour, another table's place, a count that just
  /// fits or just does not.
  std::uint64_t PickValue(std::uint64_t old) {
    constexpr std::array<std::uint64_t, 4> kUnits = {1, 4, 8, 24};
    const Elf64_Phdr& segment = Any(view_.headers());
    const std::uint64_t end = segment.p_vaddr + segment.p_memsz;
    const std::uint64_t table = view_.dynamic().empty() ? 0 : Any(view_.dynamic()).d_un.d_val;
    const std::uint64_t near = Below(49) - 24;  // around 0, in unsigned arithmetic
    switch (Below(9)) {
      case 0:
        return Below(4);
      case 1:
        return ~std::uint64_t{0} >> Below(64);
      case 2:
        return old + near;
      case 3:
        return old ^ (std::uint64_t{1} << Below(64));
      case 4:
        return segment.p_vaddr + near;
      case 5:
        return end + near;
      case 6:
        return table + near;
      case 7:
        return (end - table) / Any(kUnits) + Below(5) - 2;
      default:
        return random_();
    }
  }

  std::uint8_t* data_;
  std::size_t size_;
  const ElfView& view_;
  std::mt19937_64 random_;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

/// libFuzzer's hook: changes the `size` bytes at `data`, which has room for `most`; returns the new
/// size.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned int seed) {
  const ElfView view(data, size);
  Mutation mutation(data, size, view, seed);
  if (!view.ok() || mutation.Below(16) == 0) return LLVMFuzzerMutate(data, size, most);
  for (std::uint64_t left = 1 + mutation.Below(4); left != 0; --left) mutation.Apply();
  return size;
}
