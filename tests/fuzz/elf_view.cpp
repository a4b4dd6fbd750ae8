// A shared object's bytes as a file. One thread.
#include "tests/fuzz/elf_view.h"

namespace fuzz {

ElfView::ElfView(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {
  Elf64_Ehdr file{};
  if (!Read(0, file) || std::memcmp(file.e_ident, ELFMAG, SELFMAG) != 0 ||
      file.e_ident[EI_CLASS] != ELFCLASS64 || file.e_ident[EI_DATA] != ELFDATA2LSB ||
      file.e_type != ET_DYN || file.e_phentsize != sizeof(Elf64_Phdr)) {
    return;
  }
  headers_offset_ = file.e_phoff;
  for (std::size_t index = 0; index < file.e_phnum; ++index) {
    Elf64_Phdr header{};
    if (!Read(headers_offset_ + index * sizeof(header), header)) {
      headers_.clear();
      return;
    }
    headers_.push_back(header);
  }
  for (const Elf64_Phdr& header : headers_) {
    if (header.p_type != PT_DYNAMIC) continue;
    dynamic_offset_ = header.p_offset;
    Elf64_Dyn entry{};
    while (Read(dynamic_offset_ + dynamic_.size() * sizeof(entry), entry) &&
           entry.d_tag != DT_NULL) {
      dynamic_.push_back(entry);
    }
    break;
  }
}

std::uint64_t ElfView::Value(std::int64_t tag) const {
  for (const Elf64_Dyn& entry : dynamic_) {
    if (entry.d_tag == tag) return entry.d_un.d_val;
  }
  return 0;
}

std::size_t ElfView::FileOffset(std::uint64_t address) const {
  for (const Elf64_Phdr& header : headers_) {
    if (header.p_type != PT_LOAD || address - header.p_vaddr >= header.p_filesz) continue;
    const std::uint64_t offset = header.p_offset + (address - header.p_vaddr);
    return offset < size_ ? offset : size_;
  }
  return size_;
}

std::vector<const char*> ElfView::SymbolNames(std::size_t most) const {
  std::vector<const char*> names;
  const std::size_t symbols = FileOffset(Value(DT_SYMTAB));
  const std::size_t strings = FileOffset(Value(DT_STRTAB));
  Elf64_Sym symbol{};
  for (std::size_t index = 1;
       names.size() < most && Read(symbols + index * sizeof(symbol), symbol) &&
       symbols + index * sizeof(symbol) < strings;
       ++index) {
    const std::size_t name = strings + symbol.st_name;
    if (name < size_ && std::memchr(data_ + name, '\0', size_ - name) != nullptr) {
      names.push_back(reinterpret_cast<const char*>(data_ + name));
    }
  }
  return names;
}

}  // namespace fuzz
