// SPDX-License-Identifier: Apache-2.0
// Program headers of loaded objects, and the search for one through the dynamic linker's list.
#include "platform/cfi/loaded_object.h"

#include <link.h>

#include <algorithm>

namespace platform::cfi {
namespace {

struct Search {
  std::uint64_t pc;
  LoadedObject* object;
};

int CheckObject(dl_phdr_info* info, std::size_t /*bytes*/, void* data) {
  const auto* search = static_cast<const Search*>(data);
  LoadedObject object;
  object.bias = info->dlpi_addr;
  object.headers = info->dlpi_phdr;
  object.header_count = info->dlpi_phnum;
  object.begin = ~std::uint64_t{0};
  bool holds = false;
  for (std::size_t i = 0; i < object.header_count; ++i) {
    const Elf64_Phdr& header = object.headers[i];
    const std::uint64_t address = object.bias + header.p_vaddr;
    if (header.p_type == PT_GNU_EH_FRAME) object.frame_header = address;
    if (header.p_type != PT_LOAD) continue;
    object.begin = std::min<std::uint64_t>(object.begin, address);
    object.end = std::max<std::uint64_t>(object.end, address + header.p_memsz);
    holds = holds || search->pc - address < header.p_memsz;
  }
  if (holds) *search->object = object;
  return holds ? 1 : 0;
}

}  // namespace

std::uint64_t LoadedObject::ReadableEnd(std::uint64_t address, std::size_t bytes) const {
  for (std::size_t i = 0; i < header_count; ++i) {
    const Elf64_Phdr& header = headers[i];
    if (header.p_type != PT_LOAD || (header.p_flags & PF_R) == 0) continue;
    const std::uint64_t offset = address - (bias + header.p_vaddr);
    if (offset < header.p_filesz && bytes <= header.p_filesz - offset) {
      return bias + header.p_vaddr + header.p_filesz;
    }
  }
  return 0;
}

bool SearchLoadedObjects(std::uint64_t pc, LoadedObject* object) {
  Search search{pc, object};
  return dl_iterate_phdr(CheckObject, &search) != 0;
}

}  // namespace platform::cfi
