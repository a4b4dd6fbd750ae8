// SPDX-License-Identifier: Apache-2.0
// The slots of one loaded object: the words into which the dynamic linker writes addresses of
// functions, in the Global Offset Table and in data.
//
// For the Linux loader, which replaces functions in a running process. An object may be damaged:
// each table is compared with the mapped segments before it is read. Allocates nothing, takes no
// lock, logs nothing. Any thread, as long as the object stays loaded.
#pragma once

#include <link.h>

#include <cstdint>

#include "linker/elf_segments.h"

namespace lumora::linker {

class ImportSlots {
 public:
  enum class Type {
    kCall,  ///< for calls; may be bound at the first call
    kData,  ///< for data; holds the symbol's address once the object is relocated
    kCopy,  ///< a copy of another object's variable: st_size bytes
  };
  struct Slot {
    Type type;
    const Elf64_Sym* symbol;
    const char* name;  ///< of the symbol
    void** place;
  };

  /// Reads the object that `info` (not stored) describes. An object without relocations or with
  /// damaged tables has no slots.
  explicit ImportSlots(const dl_phdr_info& info);

  /// Calls visit(const Slot&) for each slot of a named symbol. A place may occur twice, and may be
  /// outside of the object: check it with Contains.
  template <typename Visit>
  void ForEachSlot(Visit visit) const {
    for (const Table& table : tables_) VisitTable(table, visit);
  }

  /// As ForEachSlot, for the slots that the dynamic linker may bind at their first call.
  template <typename Visit>
  void ForEachCall(Visit visit) const {
    VisitTable(tables_[0], visit);
  }

  /// Calls visit(const Elf64_Sym&, const char* name) for each function that the object exports.
  template <typename Visit>
  void ForEachFunction(Visit visit) const {
    const std::uint64_t count = CountSymbols();
    for (std::uint64_t i = 1; i < count; ++i) {
      const Elf64_Sym& symbol = symbols_[i];
      const unsigned binding = ELF64_ST_BIND(symbol.st_info);
      const bool is_function = symbol.st_shndx != SHN_UNDEF &&
                               ELF64_ST_TYPE(symbol.st_info) == STT_FUNC &&
                               (binding == STB_GLOBAL || binding == STB_WEAK);
      if (is_function && symbol.st_name < name_bytes_) visit(symbol, names_ + symbol.st_name);
    }
  }

  /// Returns whether `bytes` bytes at `place` are in a readable segment of the object, and `place`
  /// is a multiple of the size of a pointer.
  bool Contains(const void* place, std::uint64_t bytes) const;

  /// Returns whether `address` is in an executable segment of the object.
  bool ContainsCode(const void* address) const;

  /// Returns the PROT_ bits of the segment that contains `place`, according to the program headers;
  /// PROT_NONE if no segment contains it.
  int Protection(const void* place) const;

  /// Returns the address of a symbol that this object defines.
  void* AddressOf(const Elf64_Sym& symbol) const;

 private:
  struct Table {
    const Elf64_Rela* entries = nullptr;
    std::uint64_t count = 0;
  };

  template <typename Visit>
  void VisitTable(const Table& table, Visit visit) const {
    for (std::uint64_t i = 0; i < table.count; ++i) {
      Slot slot;
      if (Describe(table.entries[i], slot)) visit(slot);
    }
  }

  bool Describe(const Elf64_Rela& relocation, Slot& slot) const;
  std::uint64_t CountSymbols() const;
  const Elf64_Phdr* SegmentOf(const void* place) const;
  bool ReadDynamic(const Elf64_Dyn* dynamic, std::uint64_t entries);

  std::uint64_t bias_;
  const Elf64_Phdr* headers_;
  std::uint64_t header_count_;
  ElfSegments segments_;
  Table tables_[2];  // relocations of calls (DT_JMPREL), and all others (DT_RELA)
  const Elf64_Sym* symbols_ = nullptr;
  std::uint64_t symbol_count_ = 0;  // upper bound: symbols that fit in the segment
  const char* names_ = nullptr;
  std::uint64_t name_bytes_ = 0;
  const std::uint32_t* elf_hash_ = nullptr;
  const std::uint32_t* gnu_hash_ = nullptr;
};

}  // namespace lumora::linker
