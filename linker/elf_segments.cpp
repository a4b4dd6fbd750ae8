// The parts of a loaded library that are mapped and can be read. Any thread.
#include "linker/elf_segments.h"

namespace lumora::linker {

std::uint64_t ElfSegments::bytes_from(std::uint64_t address) const {
  for (std::uint64_t index = 0; index < info_.dlpi_phnum; ++index) {
    const Elf64_Phdr& segment = info_.dlpi_phdr[index];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_R) == 0) continue;
    // Unsigned on purpose: an address before the segment gives a huge offset.
    const std::uint64_t offset = address - (info_.dlpi_addr + segment.p_vaddr);
    if (offset < segment.p_memsz) return segment.p_memsz - offset;
  }
  return 0;
}

bool ElfSegments::holds(std::uint64_t address, std::uint64_t bytes, std::uint64_t alignment) const {
  const std::uint64_t available = bytes_from(address);
  return available != 0 && bytes <= available && (address & (alignment - 1)) == 0;
}

}  // namespace lumora::linker
