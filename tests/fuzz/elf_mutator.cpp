// SPDX-License-Identifier: Apache-2.0
// Mutations of shared objects. They keep what a loader checks and damage what the index reads:
// dynamic entries, hash tables, symbols, relocations. libFuzzer and the replay call it on one
// thread. A seed gives the same mutation on every machine.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "tests/fuzz/elf_image.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

/// libFuzzer's hook. Changes the `size` bytes at `data`, where `most` bytes fit. Returns the new
/// size.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned int seed) {
  const fuzz::ElfImage image(data, size);
  std::mt19937_64 random(seed);
  const auto below = [&random](std::uint64_t bound) { return random() % bound; };
  const auto any = [&below](const auto& list) { return list[below(list.size())]; };
  if (image.headers().empty() || below(16) == 0) return LLVMFuzzerMutate(data, size, most);

  struct Range {
    std::size_t offset, bytes;
  };
  const Range dynamic = {image.dynamic_offset(), (image.dynamic().size() + 2) * sizeof(Elf64_Dyn)};
  const std::array<Range, 8> ranges = {
      {{image.headers_offset(), image.headers().size() * sizeof(Elf64_Phdr)},
       dynamic,
       dynamic,
       {image.TableOffset(DT_GNU_HASH), 16 + below(2) * 240},
       {image.TableOffset(DT_HASH), 8 + below(2) * 248},
       {image.TableOffset(DT_SYMTAB), 32 * sizeof(Elf64_Sym)},
       {image.TableOffset(DT_JMPREL), image.Value(DT_PLTRELSZ)},
       {image.TableOffset(DT_RELA), image.Value(DT_RELASZ)}}};
  constexpr std::array<std::uint64_t, 11> kTags = {DT_NULL,   DT_PLTRELSZ, DT_HASH,    DT_STRTAB,
                                                   DT_SYMTAB, DT_RELA,     DT_REL,     DT_RELASZ,
                                                   DT_RELSZ,  DT_JMPREL,   DT_GNU_HASH};
  for (std::uint64_t left = 1 + below(4); left != 0; --left) {
    const Range range = any(ranges);
    // Tables of 64-bit numbers have some of 32 bits.
    const std::size_t bytes = range.offset % 8 == 0 && below(3) != 0 ? 8 : 4;
    const std::size_t offset =
        range.offset + below(std::max<std::size_t>(range.bytes / bytes, 1)) * bytes;
    if (offset > size || size - offset < bytes) continue;
    std::uint64_t old = 0;
    std::memcpy(&old, data + offset, bytes);
    const Elf64_Phdr& segment = any(image.headers());
    const std::uint64_t end = segment.p_vaddr + segment.p_memsz;
    const std::uint64_t table = image.dynamic().empty() ? 0 : any(image.dynamic()).d_un.d_val;
    const std::uint64_t near = below(49) - 24;  // around 0, in unsigned arithmetic
    // A tag, a limit, a value near the old one, the address of another table, or a count of its
    // entries that is just valid or just too large.
    const std::array<std::uint64_t, 10> values = {
        any(kTags),
        below(4),
        ~std::uint64_t{0} >> below(64),
        old + near,
        old ^ std::uint64_t{1} << below(64),
        segment.p_vaddr + near,
        end + near,
        table + near,
        (end - table) / (std::uint64_t{1} << below(4)) / (1 + 2 * below(2)) + below(5) - 2,
        random()};
    const std::uint64_t value = any(values);
    std::memcpy(data + offset, &value, bytes);
  }
  return size;
}
