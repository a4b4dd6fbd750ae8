// SPDX-License-Identifier: Apache-2.0
// A shared object as a file and in memory. One thread.
#include "tests/fuzz/elf_image.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace fuzz {

namespace {

constexpr std::uint64_t kMaxBytes = std::uint64_t{16} << 20;
constexpr std::size_t kGuardBytes = std::size_t{1} << 18;

const auto page_bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

std::uint64_t PageStart(std::uint64_t address) {
  return address & ~(page_bytes - 1);
}

std::uint64_t PageEnd(const Elf64_Phdr& segment) {
  return PageStart(segment.p_vaddr + segment.p_memsz + page_bytes - 1);
}

}  // namespace

ElfImage::ElfImage(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {
  Elf64_Ehdr file{};
  if (!Read(0, file) || std::memcmp(file.e_ident, ELFMAG, SELFMAG) != 0 ||
      file.e_ident[EI_CLASS] != ELFCLASS64 || file.e_ident[EI_DATA] != ELFDATA2LSB ||
      file.e_type != ET_DYN || file.e_phentsize != sizeof(Elf64_Phdr)) {
    return;
  }
  headers_offset_ = file.e_phoff;
  headers_.resize(file.e_phnum);
  for (std::size_t index = 0; index < headers_.size(); ++index) {
    if (Read(headers_offset_ + index * sizeof(Elf64_Phdr), headers_[index])) continue;
    headers_.clear();
    return;
  }
  for (const Elf64_Phdr& header : headers_) {
    if (header.p_type != PT_DYNAMIC) continue;
    dynamic_offset_ = header.p_offset;
    Elf64_Dyn entry{};
    for (std::size_t at = dynamic_offset_; Read(at, entry) && entry.d_tag != DT_NULL;
         at += sizeof(entry)) {
      dynamic_.push_back(entry);
    }
    return;
  }
}

ElfImage::~ElfImage() {
  if (memory_ == nullptr) return;
  ASAN_UNPOISON_MEMORY_REGION(memory_, span_);
  munmap(memory_ - kGuardBytes, span_ + 2 * kGuardBytes);
}

std::uint64_t ElfImage::Value(std::int64_t tag) const {
  for (const Elf64_Dyn& entry : dynamic_) {
    if (entry.d_tag == tag) return entry.d_un.d_val;
  }
  return 0;
}

std::size_t ElfImage::TableOffset(std::int64_t tag) const {
  for (const Elf64_Phdr& header : headers_) {
    const std::uint64_t offset = Value(tag) - header.p_vaddr;
    if (header.p_type != PT_LOAD || offset >= header.p_filesz) continue;
    return std::min<std::size_t>(header.p_offset + offset, size_);
  }
  return size_;
}

std::vector<const char*> ElfImage::SymbolNames(std::size_t most) const {
  std::vector<const char*> names;
  const std::size_t strings = TableOffset(DT_STRTAB);
  std::size_t at = TableOffset(DT_SYMTAB);
  Elf64_Sym symbol{};
  while (names.size() < most && at < strings && Read(at += sizeof(symbol), symbol)) {
    const std::size_t name = strings + symbol.st_name;
    if (name < size_ && std::memchr(data_ + name, '\0', size_ - name) != nullptr) {
      names.push_back(reinterpret_cast<const char*>(data_ + name));
    }
  }
  return names;
}

bool ElfImage::Acceptable() {
  first_page_ = ~std::uint64_t{0};
  std::uint64_t end = 0;
  for (const Elf64_Phdr& segment : headers_) {
    if (segment.p_type != PT_LOAD) continue;
    if (segment.p_memsz > kMaxBytes || segment.p_vaddr > ~std::uint64_t{0} - 2 * kMaxBytes ||
        segment.p_filesz > segment.p_memsz || segment.p_offset > size_ ||
        segment.p_filesz > size_ - segment.p_offset ||
        (segment.p_align & (segment.p_align - 1)) != 0 ||
        (segment.p_vaddr - segment.p_offset) % page_bytes != 0) {
      return false;
    }
    first_page_ = std::min(first_page_, PageStart(segment.p_vaddr));
    end = std::max(end, PageEnd(segment));
  }
  span_ = end - first_page_;
  return end > first_page_ && span_ <= kMaxBytes;
}

bool ElfImage::Load() {
  if (!Acceptable()) return false;
  void* all = mmap(nullptr, span_ + 2 * kGuardBytes, PROT_NONE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  Require(all != MAP_FAILED, "there is room for a library");
  memory_ = static_cast<std::uint8_t*>(all) + kGuardBytes;
  info_.dlpi_addr = reinterpret_cast<std::uint64_t>(memory_) - first_page_;
  info_.dlpi_name = "libfuzzed.so";
  info_.dlpi_phdr = headers_.data();
  info_.dlpi_phnum = static_cast<Elf64_Half>(headers_.size());
  for (const Elf64_Phdr& segment : headers_) {
    if (segment.p_type == PT_LOAD && segment.p_memsz != 0) Map(segment);
  }
  // Poisons the bytes that page protection cannot cover.
  ASAN_POISON_MEMORY_REGION(memory_, span_);
  for (const Elf64_Phdr& segment : headers_) {
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_R) == 0) continue;
    ASAN_UNPOISON_MEMORY_REGION(reinterpret_cast<void*>(info_.dlpi_addr + segment.p_vaddr),
                                segment.p_memsz);
  }
  return true;
}

void ElfImage::Map(const Elf64_Phdr& segment) const {
  std::uint8_t* const start = memory_ + (PageStart(segment.p_vaddr) - first_page_);
  const std::size_t bytes = PageEnd(segment) - PageStart(segment.p_vaddr);
  Require(mmap(start, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
               0) == start,
          "a segment is mapped");
  std::memcpy(memory_ + (segment.p_vaddr - first_page_), data_ + segment.p_offset,
              segment.p_filesz);
  Require(mprotect(start, bytes, (segment.p_flags & PF_R) != 0 ? PROT_READ : PROT_NONE) == 0,
          "a segment is protected");
}

bool ElfImage::Readable(const void* address, std::size_t bytes) const {
  static const MemoryFile file;
  const std::uint64_t offset =
      reinterpret_cast<std::uint64_t>(address) - reinterpret_cast<std::uint64_t>(memory_);
  // The sanitizers do not check what the kernel reads.
  return offset < span_ && bytes <= span_ - offset &&
         syscall(SYS_pwrite64, file.Number(), address, bytes, 0L) == static_cast<long>(bytes);
}

}  // namespace fuzz
