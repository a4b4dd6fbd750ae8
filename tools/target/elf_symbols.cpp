// SPDX-License-Identifier: Apache-2.0
#include "tools/target/elf_symbols.h"

#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>

#include <cstddef>

#include "tools/base/files.h"

namespace memleak {
namespace {

void AddDefinitions(Elf* elf, Elf_Scn* section, std::vector<ElfSymbol>* definitions) {
  GElf_Shdr header;
  Elf_Data* data = elf_getdata(section, nullptr);
  if (data == nullptr || gelf_getshdr(section, &header) == nullptr || header.sh_entsize == 0) {
    return;
  }
  const auto count = static_cast<int>(header.sh_size / header.sh_entsize);
  for (int i = 0; i < count; ++i) {
    GElf_Sym symbol;
    if (gelf_getsym(data, i, &symbol) == nullptr || symbol.st_shndx == SHN_UNDEF) continue;
    const unsigned type = GELF_ST_TYPE(symbol.st_info);
    const bool is_function = type == STT_FUNC || type == STT_GNU_IFUNC;
    const char* name = elf_strptr(elf, header.sh_link, symbol.st_name);
    if (name == nullptr || (!is_function && type != STT_OBJECT)) continue;
    definitions->push_back({name, symbol.st_value, symbol.st_size, is_function});
  }
}

}  // namespace

std::vector<ElfSymbol> ReadDefinitions(const std::string& path) {
  std::vector<ElfSymbol> definitions;
  const Descriptor file = OpenToRead(path, O_NONBLOCK);
  if (!file.IsOpen()) return definitions;
  elf_version(EV_CURRENT);
  if (Elf* elf = elf_begin(file.Number(), ELF_C_READ_MMAP, nullptr)) {
    for (Elf_Scn* section = elf_nextscn(elf, nullptr); section != nullptr;
         section = elf_nextscn(elf, section)) {
      GElf_Shdr header;
      if (gelf_getshdr(section, &header) != nullptr && header.sh_type == SHT_DYNSYM) {
        AddDefinitions(elf, section, &definitions);
      }
    }
    elf_end(elf);
  }
  return definitions;
}

}  // namespace memleak
