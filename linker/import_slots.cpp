// SPDX-License-Identifier: Apache-2.0
// Reads the relocations of a loaded object.
#include "linker/import_slots.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

#include "arch/relocation.h"
#include "platform/elf_policy.h"

namespace lumora::linker {
namespace {

std::uint64_t Number(const void* address) {
  return reinterpret_cast<std::uint64_t>(address);
}

template <typename T>
const T* At(std::uint64_t address) {
  return reinterpret_cast<const T*>(address);
}

}  // namespace

ImportSlots::ImportSlots(const dl_phdr_info& info)
    : bias_(info.dlpi_addr),
      headers_(info.dlpi_phdr),
      header_count_(info.dlpi_phnum),
      segments_(info) {
  for (std::uint64_t i = 0; i < header_count_; ++i) {
    if (headers_[i].p_type != PT_DYNAMIC) continue;
    const std::uint64_t table = bias_ + headers_[i].p_vaddr;
    const std::uint64_t bytes = segments_.bytes_from(table);
    if (table % alignof(Elf64_Dyn) == 0 &&
        ReadDynamic(At<Elf64_Dyn>(table), bytes / sizeof(Elf64_Dyn))) {
      return;
    }
    break;
  }
  // There is no dynamic section, or it is damaged.
  for (Table& table : tables_) table = Table();
  symbol_count_ = 0;
}

/// Reads and checks the tables. Returns false if a table is missing or damaged.
bool ImportSlots::ReadDynamic(const Elf64_Dyn* dynamic, std::uint64_t entries) {
  for (std::uint64_t i = 0; i < entries && dynamic[i].d_tag != DT_NULL; ++i) {
    const std::uint64_t value = dynamic[i].d_un.d_val;
    const std::uint64_t address = platform::DynamicAddress(dynamic[i].d_tag, value, bias_);
    switch (dynamic[i].d_tag) {
      case DT_JMPREL:
        tables_[0].entries = At<Elf64_Rela>(address);
        break;
      case DT_PLTRELSZ:
        tables_[0].count = value / sizeof(Elf64_Rela);
        break;
      case DT_RELA:
        tables_[1].entries = At<Elf64_Rela>(address);
        break;
      case DT_RELASZ:
        tables_[1].count = value / sizeof(Elf64_Rela);
        break;
      case DT_SYMTAB:
        symbols_ = At<Elf64_Sym>(address);
        break;
      case DT_STRTAB:
        names_ = At<char>(address);
        break;
      case DT_STRSZ:
        name_bytes_ = value;
        break;
      case DT_HASH:
        elf_hash_ = At<std::uint32_t>(address);
        break;
      case DT_GNU_HASH:
        gnu_hash_ = At<std::uint32_t>(address);
        break;
      default:
        break;
    }
  }
  for (Table& table : tables_) {
    if (table.entries == nullptr) table.count = 0;
    if (table.count != 0 && !segments_.holds(Number(table.entries),
                                             table.count * sizeof(Elf64_Rela), alignof(Elf64_Rela)))
      return false;
  }
  if (symbols_ == nullptr || names_ == nullptr || name_bytes_ == 0) return false;
  // The table ends with a NUL, so every name ends inside the table.
  if (!segments_.holds(Number(names_), name_bytes_, 1) || names_[name_bytes_ - 1] != '\0') {
    return false;
  }
  if (Number(symbols_) % alignof(Elf64_Sym) != 0) return false;
  symbol_count_ = segments_.bytes_from(Number(symbols_)) / sizeof(Elf64_Sym);
  return symbol_count_ != 0;
}

bool ImportSlots::Describe(const Elf64_Rela& relocation, Slot& slot) const {
  const std::uint64_t type = ELF64_R_TYPE(relocation.r_info);
  const std::uint64_t index = ELF64_R_SYM(relocation.r_info);
  if (index == 0 || index >= symbol_count_) return false;
  if (type == arch::kJumpSlotRelocation) {
    slot.type = Type::kCall;
  } else if (type == arch::kGlobDatRelocation ||
             (type == arch::kAbsoluteRelocation && relocation.r_addend == 0)) {
    slot.type = Type::kData;
  } else if (type == arch::kCopyRelocation) {
    slot.type = Type::kCopy;
  } else {
    return false;
  }
  slot.symbol = symbols_ + index;
  if (slot.symbol->st_name >= name_bytes_) return false;
  slot.name = names_ + slot.symbol->st_name;
  slot.place = reinterpret_cast<void**>(bias_ + relocation.r_offset);
  return true;
}

/// Returns the number of symbols. The GNU hash table does not contain it: the last chain ends with
/// the last symbol.
std::uint64_t ImportSlots::CountSymbols() const {
  if (elf_hash_ != nullptr && segments_.holds(Number(elf_hash_), 8, 4)) {
    return std::min<std::uint64_t>(elf_hash_[1], symbol_count_);
  }
  if (gnu_hash_ == nullptr || !segments_.holds(Number(gnu_hash_), 16, 8)) return 0;
  const std::uint64_t words = segments_.bytes_from(Number(gnu_hash_)) / sizeof(std::uint32_t);
  const std::uint64_t buckets = 4 + std::uint64_t{gnu_hash_[2]} * 2;
  const std::uint64_t chains = buckets + gnu_hash_[0];
  if (chains > words) return 0;
  std::uint64_t last = 0;
  for (std::uint64_t i = buckets; i < chains; ++i)
    last = std::max<std::uint64_t>(last, gnu_hash_[i]);
  const std::uint64_t first = gnu_hash_[1];
  if (last < first) return 0;
  while (chains + (last - first) < words && (gnu_hash_[chains + (last - first)] & 1) == 0) ++last;
  return std::min(last + 1, symbol_count_);
}

bool ImportSlots::Contains(const void* place, std::uint64_t bytes) const {
  return segments_.holds(Number(place), bytes, alignof(void*));
}

const Elf64_Phdr* ImportSlots::SegmentOf(const void* place) const {
  for (std::uint64_t i = 0; i < header_count_; ++i) {
    const Elf64_Phdr& segment = headers_[i];
    if (segment.p_type == PT_LOAD && Number(place) - (bias_ + segment.p_vaddr) < segment.p_memsz) {
      return &segment;
    }
  }
  return nullptr;
}

bool ImportSlots::ContainsCode(const void* address) const {
  const Elf64_Phdr* const segment = SegmentOf(address);
  return segment != nullptr && (segment->p_flags & PF_X) != 0;
}

int ImportSlots::Protection(const void* place) const {
  const Elf64_Phdr* const segment = SegmentOf(place);
  if (segment == nullptr) return PROT_NONE;
  return ((segment->p_flags & PF_R) != 0 ? PROT_READ : 0) |
         ((segment->p_flags & PF_W) != 0 ? PROT_WRITE : 0) |
         ((segment->p_flags & PF_X) != 0 ? PROT_EXEC : 0);
}

void* ImportSlots::AddressOf(const Elf64_Sym& symbol) const {
  return reinterpret_cast<void*>(bias_ + symbol.st_value);
}

}  // namespace lumora::linker
