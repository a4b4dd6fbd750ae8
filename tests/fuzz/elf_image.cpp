// SPDX-License-Identifier: Apache-2.0
// A shared object as a file and in memory. One thread.
#include "tests/fuzz/elf_image.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace fuzz {

namespace {

constexpr std::uint64_t kMaxBytes = std::uint64_t{16} << 20;
constexpr std::size_t kGuardBytes = std::size_t{1} << 18;

const auto page_bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

std::uint64_t PageStart(std::uint64_t address) {
  return address & ~(page_bytes - 1);
}

std::uint64_t PageEnd(std::uint64_t address) {
  return PageStart(address + page_bytes - 1);
}

/// Lets the kernel read the bytes and, if `write` is set, write them. The sanitizers do not check
/// this.
bool KernelCan(bool write, const void* address, std::size_t bytes) {
  static const MemoryFile file;
  const auto count = static_cast<long>(bytes);
  return syscall(SYS_pwrite64, file.Number(), address, bytes, 0L) == count &&
         (!write || syscall(SYS_pread64, file.Number(), address, bytes, 0L) == count);
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
  for (std::size_t index = 0; index < file.e_phnum; ++index) {
    Elf64_Phdr header{};
    if (!Read(headers_offset_ + index * sizeof(header), header)) {
      headers_.clear();
      return;
    }
    headers_.push_back(header);
  }
  const auto found = std::find_if(headers_.begin(), headers_.end(),
                                  [](const auto& header) { return header.p_type == PT_DYNAMIC; });
  if (found == headers_.end()) return;
  dynamic_header_ = *found;
  Elf64_Dyn entry{};
  while (Read(dynamic_offset() + dynamic_.size() * sizeof(entry), entry) &&
         entry.d_tag != DT_NULL) {
    dynamic_.push_back(entry);
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

std::size_t ElfImage::FileOffset(std::uint64_t address) const {
  for (const Elf64_Phdr& header : headers_) {
    if (header.p_type != PT_LOAD || address - header.p_vaddr >= header.p_filesz) continue;
    return std::min<std::size_t>(header.p_offset + (address - header.p_vaddr), size_);
  }
  return size_;
}

std::vector<const char*> ElfImage::SymbolNames(std::size_t most) const {
  std::vector<const char*> names;
  const std::size_t strings = FileOffset(Value(DT_STRTAB));
  std::size_t at = FileOffset(Value(DT_SYMTAB));
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
    end = std::max(end, PageEnd(segment.p_vaddr + segment.p_memsz));
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
  const auto is_mapped = [](const Elf64_Phdr& segment) {
    return segment.p_type == PT_LOAD && segment.p_memsz != 0;
  };
  for (const Elf64_Phdr& segment : headers_) {
    if (is_mapped(segment)) Map(segment);
  }
  // Poisons the bytes that page protection cannot cover.
  ASAN_POISON_MEMORY_REGION(memory_, span_);
  for (const Elf64_Phdr& segment : headers_) {
    if (is_mapped(segment) && (segment.p_flags & PF_R) != 0) {
      ASAN_UNPOISON_MEMORY_REGION(At(segment.p_vaddr), segment.p_memsz);
    }
  }
  info_.dlpi_addr = reinterpret_cast<std::uint64_t>(memory_) - first_page_;
  info_.dlpi_name = "libfuzzed.so";
  info_.dlpi_phdr = headers_.data();
  info_.dlpi_phnum = static_cast<Elf64_Half>(headers_.size());
  return true;
}

void ElfImage::Map(const Elf64_Phdr& segment) const {
  std::uint8_t* start = At(PageStart(segment.p_vaddr));
  const std::size_t bytes = PageEnd(segment.p_vaddr + segment.p_memsz) - PageStart(segment.p_vaddr);
  Require(mmap(start, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
               0) == start,
          "a segment is mapped");
  std::memcpy(At(segment.p_vaddr), data_ + segment.p_offset, segment.p_filesz);
  int protection = (segment.p_flags & PF_R) != 0 ? PROT_READ : PROT_NONE;
  if (protection != PROT_NONE && (segment.p_flags & PF_W) != 0) protection |= PROT_WRITE;
  Require(mprotect(start, bytes, protection) == 0, "a segment is protected");
}

bool ElfImage::Readable(const void* address, std::size_t bytes) const {
  const std::uint64_t offset =
      reinterpret_cast<std::uint64_t>(address) - reinterpret_cast<std::uint64_t>(memory_);
  return offset < span_ && bytes <= span_ - offset && KernelCan(false, address, bytes);
}

bool ElfImage::Writable(std::uint64_t address, std::size_t bytes) const {
  return std::any_of(headers_.begin(), headers_.end(), [&](const Elf64_Phdr& segment) {
    const std::uint64_t offset = address - segment.p_vaddr;
    return segment.p_type == PT_LOAD && (segment.p_flags & (PF_R | PF_W)) == (PF_R | PF_W) &&
           offset < segment.p_memsz && segment.p_memsz - offset >= bytes &&
           KernelCan(true, At(address), bytes);
  });
}

void ElfImage::RelocateDynamicSection() {
  // glibc uses the last of several entries with one tag.
  std::map<std::int64_t, Elf64_Dyn*> last;
  for (std::uint64_t address = dynamic_header_.p_vaddr;
       address % alignof(Elf64_Dyn) == 0 && Writable(address, sizeof(Elf64_Dyn));
       address += sizeof(Elf64_Dyn)) {
    auto* entry = reinterpret_cast<Elf64_Dyn*>(At(address));
    if (entry->d_tag == DT_NULL) break;
    last[entry->d_tag] = entry;
  }
  for (const std::int64_t tag : {DT_HASH, DT_PLTGOT, DT_STRTAB, DT_SYMTAB, DT_RELA, DT_REL,
                                 DT_JMPREL, DT_VERSYM, DT_GNU_HASH}) {
    const auto found = last.find(tag);
    if (found != last.end()) found->second->d_un.d_ptr += info_.dlpi_addr;
  }
}

}  // namespace fuzz
