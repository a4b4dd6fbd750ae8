// SPDX-License-Identifier: Apache-2.0
// The index of one loaded library: its symbols by name, and its Global Offset Table (GOT) slots for
// imported functions.
//
// The registry (sharedlibs.h) creates and stores these objects; the hook engine uses them. They are
// plain values. Any thread may use one while its library stays loaded. Only returned vectors are
// allocated.
#pragma once

#include <link.h>

#include <cstdint>
#include <vector>

namespace lumora::linker {

class ElfSegments;

/// A copyable record that owns nothing: all pointers point into the mapped library or to strings of
/// the loader. A default-constructed object is the empty record.
class elfSharedLibData {
 public:
  elfSharedLibData() = default;

  /// Indexes the library that `info` (not stored) describes. If the dynamic section or a table is
  /// missing, logs that and leaves the record incomplete. If a table is not within the library's
  /// mapped segments, logs one line and leaves the record without tables. See operator bool.
  explicit elfSharedLibData(const dl_phdr_info* info);

  /// Returns the first symbol with this name, or null. Searches the GNU hash table (the ELF hash
  /// table only if there is no GNU one), then the symbols of the PLT relocations, then those of the
  /// other relocations. Imported symbols match too. Ignores version, binding and type.
  const Elf64_Sym* find_symbol_by_name(const char* name) const;

  /// As find_symbol_by_name, but searches only the GNU hash table.
  const Elf64_Sym* gnu_find_symbol_by_name(const char* name) const;

  /// Returns the slots whose jump-slot relocation refers to `symbol`, a symbol of this record.
  std::vector<void**> get_plt_relocations(const Elf64_Sym* symbol) const;

  /// Iterates over the same slots without allocating. Returns the first slot at or after PLT
  /// relocation `index` and sets `index` to the one after it; null if there is none.
  void** next_plt_relocation(const Elf64_Sym* symbol, std::uint64_t& index) const;

  /// Returns the PLT slots that currently contain `address`, for any symbol.
  std::vector<void**> get_plt_relocations(const void* address) const;

  /// Whether all tables were found and still belong to the same library: it may have been unloaded,
  /// and another one mapped at the same address. Takes the loader's lock.
  explicit operator bool() const;

  /// As operator bool, for the symbol and string tables only. Such a library may have no PLT slots,
  /// but its symbols can be looked up.
  bool has_symbols() const;

  // Pointers and load_bias_ are addresses in this process. Relocations are entries of 24 bytes.
  std::uint64_t load_bias_ = 0;
  const Elf64_Rela* plt_relocations_ = nullptr;
  std::uint64_t plt_relocations_count_ = 0;
  const Elf64_Rela* relocations_ = nullptr;
  std::uint64_t relocations_count_ = 0;
  const Elf64_Sym* symtab_ = nullptr;
  const char* strtab_ = nullptr;
  /// The loader's string. Freed with the library, so do not read it once the library may be gone.
  const char* lib_name_ = nullptr;
  std::uint32_t elf_nbucket_ = 0;
  std::uint32_t elf_nchain_ = 0;
  const std::uint32_t* elf_buckets_ = nullptr;
  const std::uint32_t* elf_chains_ = nullptr;
  std::uint32_t gnu_nbucket_ = 0;
  /// The first symbol that the GNU hash table covers.
  std::uint32_t gnu_symndx_ = 0;
  /// Number of Bloom filter words minus one: the mask for their index.
  std::uint32_t bloom_size_ = 0;
  std::uint32_t bloom_shift_ = 0;
  const std::uint64_t* bloom_ = nullptr;
  const std::uint32_t* gnu_buckets_ = nullptr;
  /// Indexed by symbol: points gnu_symndx_ words before the first chain word.
  const std::uint32_t* gnu_chains_ = nullptr;

 private:
  bool complete() const;
  bool is_own(const void* table) const;
  bool has_name(const Elf64_Sym* symbol, const char* name) const;
  const Elf64_Sym* elf_find_symbol_by_name(const char* name) const;
  const Elf64_Sym* find_in(const Elf64_Rela* relocations, std::uint64_t count,
                           const char* name) const;
  const char* read_dynamic(const dl_phdr_info& info, const ElfSegments& segments);
  const char* read_entry(const Elf64_Dyn& entry, const ElfSegments& segments);
  const char* read_elf_hash(std::uint64_t table, const ElfSegments& segments);
  const char* read_gnu_hash(std::uint64_t table, const ElfSegments& segments);
  const char* check_tables(const ElfSegments& segments);

  // Limits of the tables that have no length of their own: the end of their segment.
  std::uint64_t symtab_count_ = 0;
  std::uint64_t strtab_bytes_ = 0;
  std::uint64_t gnu_chains_end_ = 0;
  // Hash of the library's name: identifies the library after lib_name_ may be freed.
  std::uint64_t lib_name_hash_ = 0;
};

}  // namespace lumora::linker
