// The index of one loaded library: its symbols by name, and the slots of the Global Offset Table
// through which it calls imported functions.
//
// Filled and kept by the registry (sharedlibs.h), used by the hook engine. Objects are plain
// values; any thread may read one as long as its library stays loaded. Only results are allocated.
#pragma once

#include <link.h>

#include <cstdint>
#include <vector>

namespace lumora::linker {

class ElfSegments;

/// A copyable record that owns nothing: all pointers lead into the mapped library or to the
/// loader's own strings. A default-constructed one is the empty record.
class elfSharedLibData {
 public:
  elfSharedLibData() = default;

  /// Indexes the library that `info` (not kept) describes. A missing dynamic section or table is
  /// logged and leaves the record incomplete; a table that leaves the library's mapped segments is
  /// logged in one line and leaves it without any table. See operator bool.
  explicit elfSharedLibData(const dl_phdr_info* info);

  /// The symbol of this name, or null. The first match wins: the GNU hash table (the ELF hash table
  /// only where there is no GNU one), then the symbols that relocations name. An imported symbol
  /// matches as well as a defined one; versions, binding and type are not looked at.
  const Elf64_Sym* find_symbol_by_name(const char* name) const;

  /// As find_symbol_by_name, by the GNU hash table alone.
  const Elf64_Sym* gnu_find_symbol_by_name(const char* name) const;

  /// The slots whose jump-slot relocation names `symbol`, which is one of this record's.
  std::vector<void**> get_plt_relocations(const Elf64_Sym* symbol) const;

  /// The same one by one, without allocating: the first such slot from PLT relocation `index` on,
  /// or null. `index` then leads behind it.
  void** next_plt_relocation(const Elf64_Sym* symbol, std::uint64_t& index) const;

  /// The PLT slots that hold `address` at the moment, whatever their relocations name.
  std::vector<void**> get_plt_relocations(const void* address) const;

  /// Whether all tables were found and still belong to the library they were read from: it may
  /// have been unloaded, or another be mapped in its place. Takes the loader's lock.
  explicit operator bool() const;

  /// As operator bool, for the symbol and string tables alone: such a library may call nobody
  /// through slots, but its symbols can be looked up.
  bool has_symbols() const;

  // Values are addresses in this process; "relocations" are entries of 24 bytes.
  std::uint64_t load_bias_ = 0;
  const Elf64_Rela* plt_relocations_ = nullptr;
  std::uint64_t plt_relocations_count_ = 0;
  const Elf64_Rela* relocations_ = nullptr;
  std::uint64_t relocations_count_ = 0;
  const Elf64_Sym* symtab_ = nullptr;
  const char* strtab_ = nullptr;
  /// The loader's string, which goes with the library: not to be read once it may be unloaded.
  const char* lib_name_ = nullptr;
  std::uint32_t elf_nbucket_ = 0;
  std::uint32_t elf_nchain_ = 0;
  const std::uint32_t* elf_buckets_ = nullptr;
  const std::uint32_t* elf_chains_ = nullptr;
  std::uint32_t gnu_nbucket_ = 0;
  /// The first symbol that the GNU hash table covers.
  std::uint32_t gnu_symndx_ = 0;
  /// The number of Bloom words less one: the mask of their index.
  std::uint32_t bloom_size_ = 0;
  std::uint32_t bloom_shift_ = 0;
  const std::uint64_t* bloom_ = nullptr;
  const std::uint32_t* gnu_buckets_ = nullptr;
  /// Indexed by symbol: starts gnu_symndx_ words before the first chain word there is.
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

  // How far the tables without a length reach: to the end of their segment.
  std::uint64_t symtab_count_ = 0;
  std::uint64_t strtab_bytes_ = 0;
  std::uint64_t gnu_chains_end_ = 0;
  // Tells the library by its name when the loader's string may be gone.
  std::uint64_t lib_name_hash_ = 0;
};

}  // namespace lumora::linker
