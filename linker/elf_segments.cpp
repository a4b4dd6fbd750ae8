// SPDX-License-Identifier: Apache-2.0
// The readable mapped parts of a loaded library. Any thread.
#include "linker/elf_segments.h"

#include <unistd.h>

namespace lumora::linker {

std::uint64_t ElfSegments::bytes_from(std::uint64_t address) const {
  for (std::uint64_t index = 0; index < info_.dlpi_phnum; ++index) {
    const Elf64_Phdr& segment = info_.dlpi_phdr[index];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_R) == 0) continue;
    // Intentional: unsigned. An address before the segment gives a huge offset.
    const std::uint64_t offset = address - (info_.dlpi_addr + segment.p_vaddr);
    if (offset >= segment.p_memsz) continue;
    const std::uint64_t bytes = readable_under_later(index, address, segment.p_memsz - offset);
    if (bytes != 0) return bytes;
  }
  return 0;
}

/// Returns how many of the `bytes` bytes at `address`, in segment `index`, stay readable. The
/// loader maps later segments over earlier ones, in whole pages.
std::uint64_t ElfSegments::readable_under_later(std::uint64_t index, std::uint64_t address,
                                                std::uint64_t bytes) const {
  while (++index < info_.dlpi_phnum) {
    const Elf64_Phdr& segment = info_.dlpi_phdr[index];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_R) != 0) continue;
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t first = info_.dlpi_addr + segment.p_vaddr;
    const std::uint64_t start = first & ~(page - 1);
    const std::uint64_t end = (first + segment.p_memsz + page - 1) & ~(page - 1);
    if (segment.p_memsz == 0 || end <= address || start >= address + bytes) continue;
    if (start <= address) return 0;
    bytes = start - address;
  }
  return bytes;
}

bool ElfSegments::holds(std::uint64_t address, std::uint64_t bytes, std::uint64_t alignment) const {
  const std::uint64_t available = bytes_from(address);
  return available != 0 && bytes <= available && (address & (alignment - 1)) == 0;
}

}  // namespace lumora::linker
