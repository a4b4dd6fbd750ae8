// Headers of ELF files.
#include "tools/target/elf_info.h"

#include <elf.h>

#include <cstring>
#include <fstream>

#include "tools/base/files.h"

namespace memleak {
namespace {

template <typename T>
bool ReadAt(std::ifstream* file, std::uint64_t offset, T* value) {
  file->clear();
  file->seekg(static_cast<std::streamoff>(offset));
  file->read(reinterpret_cast<char*>(value), sizeof(T));
  return file->gcount() == static_cast<std::streamsize>(sizeof(T));
}

}  // namespace

std::optional<ElfInfo> ReadElf(const std::string& path) {
  if (!IsPlainFile(path)) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  unsigned char ident[EI_NIDENT] = {};
  if (!ReadAt(&file, 0, &ident) || std::memcmp(ident, ELFMAG, SELFMAG) != 0) return std::nullopt;

  ElfInfo info;
  info.is_64_bit = ident[EI_CLASS] == ELFCLASS64;
  info.is_little_endian = ident[EI_DATA] == ELFDATA2LSB;
  if (!info.is_64_bit || !info.is_little_endian) {
    // Type and machine stand at the same place in both widths; more is not needed to refuse it.
    Elf32_Ehdr header{};
    if (!ReadAt(&file, 0, &header)) return std::nullopt;
    info.type = header.e_type;
    info.machine = header.e_machine;
    if (!info.is_little_endian)
      info.machine = static_cast<std::uint16_t>(__builtin_bswap16(info.machine));
    return info;
  }
  Elf64_Ehdr header{};
  if (!ReadAt(&file, 0, &header)) return std::nullopt;
  info.type = header.e_type;
  info.machine = header.e_machine;
  if (header.e_phnum != 0 && header.e_phentsize != sizeof(Elf64_Phdr)) return std::nullopt;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment{};
    if (!ReadAt(&file, header.e_phoff + i * sizeof(segment), &segment)) return std::nullopt;
    if (segment.p_type == PT_INTERP) info.has_interpreter = true;
  }
  return info;
}

std::string MachineName(std::uint16_t machine) {
  switch (machine) {
    case EM_X86_64:
      return "x86-64";
    case EM_AARCH64:
      return "aarch64";
    default:
      return "machine " + std::to_string(machine);
  }
}

std::uint16_t OwnMachine() {
#ifdef __aarch64__
  return EM_AARCH64;
#else
  return EM_X86_64;
#endif
}

}  // namespace memleak
