// SPDX-License-Identifier: Apache-2.0
// The index of one loaded library: parses its dynamic section and looks up symbols. Any thread.
//
// The constructor validates all tables whose length is known. Lookups bounds-check every index.
#include "linker/elfSharedLibData.h"

#include <android-base/logging.h>
#include <dlfcn.h>

#include <cstring>
#include <functional>
#include <string_view>

#include "arch/relocation.h"
#include "linker/elf_segments.h"
#include "platform/elf_policy.h"

namespace lumora::linker {

namespace {

/// Header words before the Bloom filter, and before the buckets of the ELF hash table.
constexpr std::uint64_t kGnuHeaderWords = 4;
constexpr std::uint64_t kElfHeaderWords = 2;
constexpr std::uint64_t kWord = sizeof(std::uint32_t);

template <typename T>
const T* At(std::uint64_t address) {
  return reinterpret_cast<const T*>(address);
}

std::uint64_t AddressOf(const void* pointer) {
  return reinterpret_cast<std::uint64_t>(pointer);
}

/// The System V ABI's hash of a symbol name.
std::uint32_t ElfHash(const char* name) {
  std::uint32_t hash = 0;
  for (; *name != '\0'; ++name) {
    hash = (hash << 4) + static_cast<unsigned char>(*name);
    const std::uint32_t top = hash & 0xf0000000U;
    hash ^= top >> 24;
    hash &= ~top;
  }
  return hash;
}

std::uint32_t GnuHash(const char* name) {
  std::uint32_t hash = 5381;
  for (; *name != '\0'; ++name) hash = hash * 33 + static_cast<unsigned char>(*name);
  return hash;
}

std::uint64_t NameHash(const char* name) {
  return std::hash<std::string_view>()(name);
}

/// The slot that a relocation fills.
void** SlotOf(const Elf64_Rela& relocation, std::uint64_t load_bias) {
  return reinterpret_cast<void**>(load_bias + relocation.r_offset);
}

}  // namespace

elfSharedLibData::elfSharedLibData(const dl_phdr_info* info)
    : load_bias_(info->dlpi_addr),
      lib_name_(info->dlpi_name),
      lib_name_hash_(info->dlpi_name != nullptr ? NameHash(info->dlpi_name) : 0) {
  const ElfSegments segments(*info);
  const char* damage = read_dynamic(*info, segments);
  if (damage == nullptr) damage = check_tables(segments);
  if (damage != nullptr) {
    LOG(ERROR) << "skipped " << (lib_name_ != nullptr ? lib_name_ : "") << ": " << damage
               << " outside its segments";
    const elfSharedLibData described = *this;
    *this = elfSharedLibData();
    load_bias_ = described.load_bias_;
    lib_name_ = described.lib_name_;
    lib_name_hash_ = described.lib_name_hash_;
    return;
  }
  // Intentional: such a count is logged and used as it is, although lookups then miss symbols.
  // Logged here, so that a damaged library has one line.
  if (bloom_ != nullptr && (bloom_size_ & (bloom_size_ + 1)) != 0) {
    LOG(ERROR) << "bloom_size_ not power of 2";
  }
  if (!complete()) LOG(ERROR) << "not all info found";
}

/// Reads the dynamic section. Returns the name of the damaged part, or null.
const char* elfSharedLibData::read_dynamic(const dl_phdr_info& info, const ElfSegments& segments) {
  std::uint64_t table = 0;
  for (std::uint64_t index = 0; index < info.dlpi_phnum; ++index) {
    if (info.dlpi_phdr[index].p_type != PT_DYNAMIC) continue;
    table = load_bias_ + info.dlpi_phdr[index].p_vaddr;
    break;
  }
  if (table == 0) {
    LOG(ERROR) << "dynamic_table == null";
    return nullptr;
  }
  if (!segments.holds(table, sizeof(Elf64_Dyn), alignof(Elf64_Dyn))) return "dynamic section";
  const std::uint64_t room = segments.bytes_from(table) / sizeof(Elf64_Dyn);
  for (std::uint64_t index = 0; index < room; ++index) {
    const Elf64_Dyn& entry = At<Elf64_Dyn>(table)[index];
    if (entry.d_tag == DT_NULL) return nullptr;
    const char* damage = read_entry(entry, segments);
    // Stops at the last required table. Later entries are not read, not even relocations.
    if (damage != nullptr || complete()) return damage;
  }
  return "end of the dynamic section";
}

/// Reads one entry of the dynamic section. Returns the name of the damaged part, or null.
const char* elfSharedLibData::read_entry(const Elf64_Dyn& entry, const ElfSegments& segments) {
  const std::uint64_t address = platform::DynamicAddress(entry.d_tag, entry.d_un.d_ptr, load_bias_);
  switch (entry.d_tag) {
    case DT_JMPREL:
      plt_relocations_ = At<Elf64_Rela>(address);
      break;
    case DT_PLTRELSZ:
      plt_relocations_count_ = entry.d_un.d_val / sizeof(Elf64_Rela);
      break;
    // Intentional: relocations without addends are treated as relocations with addends. Neither
    // supported processor has them, and only their symbols are read.
    case DT_RELA:
    case DT_REL:
      relocations_ = At<Elf64_Rela>(address);
      break;
    case DT_RELASZ:
    case DT_RELSZ:
      relocations_count_ = entry.d_un.d_val / sizeof(Elf64_Rela);
      break;
    case DT_SYMTAB:
      symtab_ = At<Elf64_Sym>(address);
      break;
    case DT_STRTAB:
      strtab_ = At<char>(address);
      break;
    case DT_HASH:
      return read_elf_hash(address, segments);
    case DT_GNU_HASH:
      return read_gnu_hash(address, segments);
    default:
      break;
  }
  return nullptr;
}

const char* elfSharedLibData::read_elf_hash(std::uint64_t table, const ElfSegments& segments) {
  if (!segments.holds(table, kElfHeaderWords * kWord, kWord)) return "ELF hash table";
  const auto* words = At<std::uint32_t>(table);
  elf_nbucket_ = words[0];
  elf_nchain_ = words[1];
  elf_buckets_ = words + kElfHeaderWords;
  const std::uint64_t all = kElfHeaderWords + std::uint64_t{elf_nbucket_} + elf_nchain_;
  if (!segments.holds(table, all * kWord, kWord)) return "ELF hash table";
  elf_chains_ = elf_buckets_ + elf_nbucket_;
  return nullptr;
}

const char* elfSharedLibData::read_gnu_hash(std::uint64_t table, const ElfSegments& segments) {
  if (!segments.holds(table, kGnuHeaderWords * kWord, alignof(std::uint64_t))) {
    return "GNU hash table";
  }
  const auto* words = At<std::uint32_t>(table);
  gnu_nbucket_ = words[0];
  gnu_symndx_ = words[1];
  bloom_size_ = words[2];
  bloom_shift_ = words[3];
  const std::uint64_t buckets = table + kGnuHeaderWords * kWord + bloom_size_ * sizeof(*bloom_);
  const std::uint64_t chains = buckets + gnu_nbucket_ * kWord;
  // No Bloom word at all would give an index mask of all ones.
  if (bloom_size_ == 0 || !segments.holds(table, chains - table, alignof(std::uint64_t))) {
    return "GNU hash table";
  }
  bloom_ = At<std::uint64_t>(table + kGnuHeaderWords * kWord);
  gnu_buckets_ = At<std::uint32_t>(buckets);
  // Computed as an integer: the result may be before the mapping. Lookups start at gnu_symndx_.
  gnu_chains_ = At<std::uint32_t>(chains - gnu_symndx_ * kWord);
  gnu_chains_end_ = gnu_symndx_ + (segments.bytes_from(table) - (chains - table)) / kWord;
  --bloom_size_;
  return nullptr;
}

/// Checks that all tables except the hash tables are within segments, and also the slot of every
/// PLT relocation, since slots are read and written later. Returns the name of the damaged part, or
/// null.
const char* elfSharedLibData::check_tables(const ElfSegments& segments) {
  constexpr std::uint64_t kEntry = sizeof(Elf64_Rela);
  if (symtab_ != nullptr) {
    if (!segments.holds(AddressOf(symtab_), sizeof(*symtab_), alignof(Elf64_Sym))) {
      return "symbol table";
    }
    symtab_count_ = segments.bytes_from(AddressOf(symtab_)) / sizeof(*symtab_);
  }
  if (strtab_ != nullptr) {
    strtab_bytes_ = segments.bytes_from(AddressOf(strtab_));
    if (strtab_bytes_ == 0) return "string table";
  }
  if (relocations_ != nullptr && relocations_count_ != 0 &&
      !segments.holds(AddressOf(relocations_), relocations_count_ * kEntry, alignof(Elf64_Rela))) {
    return "relocations";
  }
  if (plt_relocations_ == nullptr || plt_relocations_count_ == 0) return nullptr;
  if (!segments.holds(AddressOf(plt_relocations_), plt_relocations_count_ * kEntry,
                      alignof(Elf64_Rela))) {
    return "PLT relocations";
  }
  for (std::uint64_t index = 0; index < plt_relocations_count_; ++index) {
    const Elf64_Rela& relocation = plt_relocations_[index];
    if (symtab_ != nullptr && ELF64_R_SYM(relocation.r_info) >= symtab_count_) {
      return "symbol of a PLT relocation";
    }
    if (!segments.holds(load_bias_ + relocation.r_offset, sizeof(void*), alignof(void*))) {
      return "slot of a PLT relocation";
    }
  }
  return nullptr;
}

bool elfSharedLibData::complete() const {
  return plt_relocations_count_ != 0 && plt_relocations_ != nullptr && symtab_ != nullptr &&
         strtab_ != nullptr && (elf_nbucket_ != 0 || gnu_nbucket_ != 0);
}

elfSharedLibData::operator bool() const {
  return complete() && is_own(plt_relocations_) && has_symbols();
}

bool elfSharedLibData::has_symbols() const {
  return symtab_ != nullptr && strtab_ != nullptr && is_own(symtab_) && is_own(strtab_);
}

/// Whether `table` is in a library with this library's name, according to the loader. Compares
/// hashes: if the library is gone, lib_name_ points to freed memory, which may contain the name of
/// another library.
bool elfSharedLibData::is_own(const void* table) const {
  Dl_info found{};
  return dladdr(table, &found) != 0 && found.dli_fname != nullptr && lib_name_ != nullptr &&
         NameHash(found.dli_fname) == lib_name_hash_;
}

/// Whether the symbol's name is `name`. Does not read beyond the string table.
bool elfSharedLibData::has_name(const Elf64_Sym* symbol, const char* name) const {
  if (symbol->st_name >= strtab_bytes_) return false;
  const std::size_t length = std::strlen(name);
  return length < strtab_bytes_ - symbol->st_name &&
         std::memcmp(strtab_ + symbol->st_name, name, length + 1) == 0;
}

const Elf64_Sym* elfSharedLibData::find_symbol_by_name(const char* name) const {
  const Elf64_Sym* found = nullptr;
  if (gnu_nbucket_ != 0) {
    found = gnu_find_symbol_by_name(name);
  } else if (elf_buckets_ != nullptr) {
    found = elf_find_symbol_by_name(name);
  }
  if (found == nullptr) found = find_in(plt_relocations_, plt_relocations_count_, name);
  if (found == nullptr) found = find_in(relocations_, relocations_count_, name);
  return found;
}

const Elf64_Sym* elfSharedLibData::gnu_find_symbol_by_name(const char* name) const {
  if (bloom_ == nullptr || gnu_nbucket_ == 0) return nullptr;
  const std::uint32_t hash = GnuHash(name);
  const std::uint64_t word = bloom_[(hash >> 6) & bloom_size_];
  // A shift by 32 or more is undefined; both processors take the count modulo 32.
  const std::uint32_t second = hash >> (bloom_shift_ & 31);
  if ((word >> (hash & 63) & word >> (second & 63) & 1) == 0) return nullptr;
  std::uint64_t index = gnu_buckets_[hash % gnu_nbucket_];
  if (index == 0 || index < gnu_symndx_) return nullptr;
  for (; index < gnu_chains_end_ && index < symtab_count_; ++index) {
    const std::uint32_t chain = *At<std::uint32_t>(AddressOf(gnu_chains_) + index * kWord);
    if ((chain ^ hash) < 2 && has_name(symtab_ + index, name)) return symtab_ + index;
    if ((chain & 1) != 0) break;
  }
  return nullptr;
}

const Elf64_Sym* elfSharedLibData::elf_find_symbol_by_name(const char* name) const {
  if (elf_nbucket_ == 0) return nullptr;
  std::uint32_t index = elf_buckets_[ElfHash(name) % elf_nbucket_];
  // A chain with more than elf_nchain_ steps is cyclic.
  for (std::uint32_t steps = 0; index != 0 && steps < elf_nchain_; ++steps) {
    if (index >= elf_nchain_ || index >= symtab_count_) return nullptr;
    if (has_name(symtab_ + index, name)) return symtab_ + index;
    index = elf_chains_[index];
  }
  return nullptr;
}

/// Returns the first symbol with this name that a relocation of any type refers to, or null.
const Elf64_Sym* elfSharedLibData::find_in(const Elf64_Rela* relocations, std::uint64_t count,
                                           const char* name) const {
  if (relocations == nullptr) return nullptr;
  for (std::uint64_t index = 0; index < count; ++index) {
    const std::uint64_t symbol = ELF64_R_SYM(relocations[index].r_info);
    if (symbol < symtab_count_ && has_name(symtab_ + symbol, name)) return symtab_ + symbol;
  }
  return nullptr;
}

void** elfSharedLibData::next_plt_relocation(const Elf64_Sym* symbol, std::uint64_t& index) const {
  if (plt_relocations_ == nullptr || symtab_ == nullptr || symbol == nullptr) return nullptr;
  while (index < plt_relocations_count_) {
    const Elf64_Rela& relocation = plt_relocations_[index++];
    if (ELF64_R_TYPE(relocation.r_info) == arch::kJumpSlotRelocation &&
        symtab_ + ELF64_R_SYM(relocation.r_info) == symbol) {
      return SlotOf(relocation, load_bias_);
    }
  }
  return nullptr;
}

std::vector<void**> elfSharedLibData::get_plt_relocations(const Elf64_Sym* symbol) const {
  std::vector<void**> slots;
  std::uint64_t index = 0;
  while (void** slot = next_plt_relocation(symbol, index)) slots.push_back(slot);
  return slots;
}

std::vector<void**> elfSharedLibData::get_plt_relocations(const void* address) const {
  std::vector<void**> slots;
  if (plt_relocations_ == nullptr) return slots;
  for (std::uint64_t index = 0; index < plt_relocations_count_; ++index) {
    void** slot = SlotOf(plt_relocations_[index], load_bias_);
    // Atomic: another thread may patch the slot, or the loader may resolve it.
    if (__atomic_load_n(slot, __ATOMIC_RELAXED) == address) slots.push_back(slot);
  }
  return slots;
}

}  // namespace lumora::linker
