// A shared object laid out in memory as the dynamic linkers do it. One thread.
#include "tests/fuzz/elf_loader.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "tests/fuzz/support.h"

namespace fuzz {

namespace {

constexpr std::uint64_t kMostBytes = std::uint64_t{16} << 20;
constexpr std::size_t kGuardPages = 16;

std::uint64_t PageBytes() {
  static const auto bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

std::uint64_t PageStart(std::uint64_t address) {
  return address & ~(PageBytes() - 1);
}

std::uint64_t PageEnd(std::uint64_t address) {
  return PageStart(address + PageBytes() - 1);
}

std::ptrdiff_t PageIndex(std::uint64_t offset) {
  return static_cast<std::ptrdiff_t>(offset / PageBytes());
}

}  // namespace

ElfLoader::ElfLoader(const ElfView& view, const std::uint8_t* data, std::size_t size)
    : headers_(view.headers()) {
  if (!Accept(size)) return;
  const std::size_t guard = kGuardPages * PageBytes();
  void* all = mmap(nullptr, span_ + 2 * guard, PROT_NONE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  Require(all != MAP_FAILED, "there is room for a library");
  memory_ = static_cast<std::uint8_t*>(all) + guard;
  protection_.assign(span_ / PageBytes(), PROT_NONE);
  for (const Elf64_Phdr& segment : headers_) {
    if (segment.p_type == PT_LOAD && segment.p_memsz != 0) MapSegment(segment, data);
  }
  PoisonOutside();
  info_.dlpi_addr = reinterpret_cast<std::uint64_t>(memory_) - first_page_;
  info_.dlpi_name = "libfuzzed.so";
  info_.dlpi_phdr = headers_.data();
  info_.dlpi_phnum = static_cast<Elf64_Half>(headers_.size());
}

ElfLoader::~ElfLoader() {
  if (memory_ == nullptr) return;
  ASAN_UNPOISON_MEMORY_REGION(memory_, span_);
  const std::size_t guard = kGuardPages * PageBytes();
  munmap(memory_ - guard, span_ + 2 * guard);
}

bool ElfLoader::Accept(std::size_t file_bytes) {
  std::uint64_t first = ~std::uint64_t{0};
  std::uint64_t end = 0;
  for (const Elf64_Phdr& segment : headers_) {
    if (segment.p_type != PT_LOAD) continue;
    const std::uint64_t align = segment.p_align;
    if (segment.p_memsz > kMostBytes || segment.p_vaddr > ~std::uint64_t{0} - 2 * kMostBytes ||
        segment.p_filesz > segment.p_memsz || segment.p_offset > file_bytes ||
        segment.p_filesz > file_bytes - segment.p_offset || (align & (align - 1)) != 0 ||
        (segment.p_vaddr - segment.p_offset) % PageBytes() != 0) {
      return false;
    }
    first = std::min(first, PageStart(segment.p_vaddr));
    end = std::max(end, PageEnd(segment.p_vaddr + segment.p_memsz));
  }
  first_page_ = first;
  span_ = end - first;
  return end > first && span_ <= kMostBytes;
}

void ElfLoader::MapSegment(const Elf64_Phdr& segment, const std::uint8_t* data) {
  std::uint8_t* start = At(PageStart(segment.p_vaddr));
  const std::size_t bytes = PageEnd(segment.p_vaddr + segment.p_memsz) - PageStart(segment.p_vaddr);
  Require(mmap(start, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
               0) == start,
          "a segment is mapped");
  std::memcpy(At(segment.p_vaddr), data + segment.p_offset, segment.p_filesz);
  int protection = (segment.p_flags & PF_R) != 0 ? PROT_READ : PROT_NONE;
  if (protection != PROT_NONE && (segment.p_flags & PF_W) != 0) protection |= PROT_WRITE;
  Require(mprotect(start, bytes, protection) == 0, "a segment is protected");
  std::fill_n(protection_.begin() + PageIndex(PageStart(segment.p_vaddr) - first_page_),
              bytes / PageBytes(), protection);
}

/// Lets AddressSanitizer see what the pages' protection leaves open.
void ElfLoader::PoisonOutside() {
  ASAN_POISON_MEMORY_REGION(memory_, span_);
  for (const Elf64_Phdr& segment : headers_) {
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_R) != 0) {
      ASAN_UNPOISON_MEMORY_REGION(At(segment.p_vaddr), segment.p_memsz);
    }
  }
}

std::uint8_t* ElfLoader::At(std::uint64_t address) const {
  return memory_ + (address - first_page_);
}

bool ElfLoader::Readable(const void* address, std::size_t bytes) const {
  const std::uint64_t offset =
      reinterpret_cast<std::uint64_t>(address) - reinterpret_cast<std::uint64_t>(memory_);
  if (offset >= span_ || bytes > span_ - offset) return false;
  for (std::uint64_t page = PageStart(offset); page < offset + bytes; page += PageBytes()) {
    if ((protection_[page / PageBytes()] & PROT_READ) == 0) return false;
  }
  return true;
}

bool ElfLoader::Writable(std::uint64_t address, std::size_t bytes) const {
  return std::any_of(headers_.begin(), headers_.end(), [&](const Elf64_Phdr& segment) {
    constexpr Elf64_Word kBoth = PF_R | PF_W;
    const std::uint64_t offset = address - segment.p_vaddr;
    if (segment.p_type != PT_LOAD || (segment.p_flags & kBoth) != kBoth ||
        offset >= segment.p_memsz || segment.p_memsz - offset < bytes) {
      return false;
    }
    const auto first = protection_.begin() + PageIndex(address - first_page_);
    const auto last = protection_.begin() + PageIndex(address + bytes - 1 - first_page_);
    return (*first & *last & PROT_WRITE) != 0;
  });
}

void ElfLoader::RelocateDynamicSection() {
  constexpr std::array<std::int64_t, 9> kRelocated = {
      DT_HASH, DT_PLTGOT, DT_STRTAB, DT_SYMTAB, DT_RELA, DT_REL, DT_JMPREL, DT_VERSYM, DT_GNU_HASH};
  std::uint64_t address = 0;
  for (const Elf64_Phdr& header : headers_) {
    if (header.p_type != PT_DYNAMIC) continue;
    address = header.p_vaddr;
    break;
  }
  std::array<Elf64_Dyn*, kRelocated.size()> last{};
  for (; address % alignof(Elf64_Dyn) == 0 && Writable(address, sizeof(Elf64_Dyn));
       address += sizeof(Elf64_Dyn)) {
    auto* entry = reinterpret_cast<Elf64_Dyn*>(At(address));
    if (entry->d_tag == DT_NULL) break;
    const auto* tag = std::find(kRelocated.begin(), kRelocated.end(), entry->d_tag);
    // Of several entries with one tag glibc keeps the last.
    if (tag != kRelocated.end())
      last.at(static_cast<std::size_t>(tag - kRelocated.begin())) = entry;
  }
  for (Elf64_Dyn* entry : last) {
    if (entry != nullptr) entry->d_un.d_ptr += info_.dlpi_addr;
  }
}

}  // namespace fuzz
