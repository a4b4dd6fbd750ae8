// SPDX-License-Identifier: Apache-2.0
// Any size and address in a file may be wrong: all reads are clamped to the file and the segment.
#include "tools/target/elf_file.h"

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>

#include "tools/base/files.h"

namespace memleak {
namespace {

// Relocations of slots, as the ABIs of the two processors number them. A C library's <elf.h> may
// define only those of its processor.
constexpr std::uint32_t kAarch64GlobDat = 1025;
constexpr std::uint32_t kAarch64JumpSlot = 1026;
constexpr std::uint32_t kX86GlobDat = 6;
constexpr std::uint32_t kX86JumpSlot = 7;

constexpr std::uint64_t kPageMask = 4095;

class File {
 public:
  explicit File(const std::string& name) {
    struct stat status {};
    const RootedPath path(name);
    // Opening a device may have side effects.
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    file_ = OpenToRead(path.Text());
    if (file_.IsOpen()) size_ = static_cast<std::uint64_t>(status.st_size);
  }

  /// The whole entries in the `bytes` bytes at `offset`, up to the end of the file.
  template <typename T>
  std::vector<T> Read(std::uint64_t offset, std::uint64_t bytes) const {
    if (offset >= size_) return {};
    std::vector<T> entries(std::min(bytes, size_ - offset) / sizeof(T));
    const ssize_t got = pread(file_.Number(), entries.data(), entries.size() * sizeof(T),
                              static_cast<off_t>(offset));
    entries.resize(got < 0 ? 0 : static_cast<std::size_t>(got) / sizeof(T));
    return entries;
  }

 private:
  Descriptor file_;
  std::uint64_t size_ = 0;
};

/// A file with its headers.
class Image {
 public:
  explicit Image(const std::string& path) : file_(path) { is_valid_ = ReadHeaders(); }

  bool IsValid() const { return is_valid_; }
  const ElfInfo& Info() const { return info_; }
  /// The first segment of `type`; null if there is none, or the file is not 64-bit little-endian.
  const Elf64_Phdr* Segment(std::uint32_t type) const {
    const auto found =
        std::find_if(segments_.begin(), segments_.end(),
                     [&](const Elf64_Phdr& segment) { return segment.p_type == type; });
    return found == segments_.end() ? nullptr : &*found;
  }

  /// The whole entries in the `bytes` bytes at `address`, up to the end of the segment.
  template <typename T>
  std::vector<T> ReadAt(std::uint64_t address, std::uint64_t bytes) const {
    for (const Elf64_Phdr& segment : segments_) {
      if (segment.p_type != PT_LOAD || address < segment.p_vaddr) continue;
      const std::uint64_t into = address - segment.p_vaddr;
      if (into >= segment.p_filesz) continue;
      return file_.Read<T>(segment.p_offset + into,
                           std::min<std::uint64_t>(bytes, segment.p_filesz - into));
    }
    return {};
  }

 private:
  bool ReadHeaders() {
    // Type and machine are at the same offset in both widths.
    const auto start = file_.Read<Elf32_Ehdr>(0, sizeof(Elf32_Ehdr));
    if (start.empty() || std::memcmp(start[0].e_ident, ELFMAG, SELFMAG) != 0) return false;
    info_.is_64_bit = start[0].e_ident[EI_CLASS] == ELFCLASS64;
    info_.is_little_endian = start[0].e_ident[EI_DATA] == ELFDATA2LSB;
    info_.type = start[0].e_type;
    info_.machine = start[0].e_machine;
    if (!info_.is_little_endian) {
      info_.machine = static_cast<std::uint16_t>(__builtin_bswap16(info_.machine));
    }
    if (!info_.is_64_bit || !info_.is_little_endian) return true;
    const auto header = file_.Read<Elf64_Ehdr>(0, sizeof(Elf64_Ehdr));
    if (header.empty()) return false;
    const std::size_t count = header[0].e_phnum;
    if (count != 0 && header[0].e_phentsize != sizeof(Elf64_Phdr)) return false;
    segments_ = file_.Read<Elf64_Phdr>(header[0].e_phoff, count * sizeof(Elf64_Phdr));
    if (const Elf64_Phdr* path = Segment(PT_INTERP)) {
      const auto text = file_.Read<char>(path->p_offset, path->p_filesz);
      info_.interpreter.assign(text.begin(), std::find(text.begin(), text.end(), '\0'));
    }
    return segments_.size() == count;
  }

  File file_;
  ElfInfo info_;
  std::vector<Elf64_Phdr> segments_;
  bool is_valid_;
};

/// Builds a DynamicFile.
class DynamicReader {
 public:
  DynamicReader(const Image& image, const std::vector<std::string>& functions)
      : image_(image), functions_(functions) {}

  std::optional<DynamicFile> Read() {
    const Elf64_Phdr* load = image_.Segment(PT_LOAD);
    const Elf64_Phdr* dynamic = image_.Segment(PT_DYNAMIC);
    if (!image_.IsValid() || load == nullptr || dynamic == nullptr) return std::nullopt;
    result_.machine = image_.Info().machine;
    result_.first_offset = load->p_offset & ~kPageMask;
    result_.first_address = load->p_vaddr & ~kPageMask;
    ReadEntries(*dynamic);
    strings_ = image_.ReadAt<char>(entries_[DT_STRTAB], entries_[DT_STRSZ]);
    if (entries_.contains(DT_SONAME)) result_.soname = Text(entries_[DT_SONAME]);
    AddImports(entries_[DT_JMPREL], entries_[DT_PLTRELSZ], true);
    AddImports(entries_[DT_RELA], entries_[DT_RELASZ], false);
    return std::move(result_);
  }

 private:
  void ReadEntries(const Elf64_Phdr& dynamic) {
    std::uint64_t address = dynamic.p_vaddr;
    for (const Elf64_Dyn& entry : image_.ReadAt<Elf64_Dyn>(address, dynamic.p_filesz)) {
      if (entry.d_tag == DT_NULL) break;
      entries_[entry.d_tag] = entry.d_un.d_val;
      if (entry.d_tag == DT_DEBUG) result_.debug_entry = address + offsetof(Elf64_Dyn, d_un);
      address += sizeof(entry);
    }
  }

  std::string Text(std::uint64_t offset) const {
    if (offset >= strings_.size()) return "";
    const auto start = strings_.begin() + static_cast<std::ptrdiff_t>(offset);
    return {start, std::find(start, strings_.end(), '\0')};
  }

  bool FillsSlot(const Elf64_Rela& relocation, bool jump) const {
    const auto type = ELF64_R_TYPE(relocation.r_info);
    if (result_.machine == EM_AARCH64) return type == (jump ? kAarch64JumpSlot : kAarch64GlobDat);
    return result_.machine == EM_X86_64 && type == (jump ? kX86JumpSlot : kX86GlobDat);
  }

  void AddImports(std::uint64_t address, std::uint64_t bytes, bool jump) {
    auto relocations = image_.ReadAt<Elf64_Rela>(address, bytes);
    relocations.erase(
        std::remove_if(relocations.begin(), relocations.end(),
                       [&](const Elf64_Rela& entry) { return !FillsSlot(entry, jump); }),
        relocations.end());
    // No field holds the length of the symbol table: read as much as the relocations need.
    std::uint64_t count = 0;
    for (const Elf64_Rela& relocation : relocations) {
      count = std::max<std::uint64_t>(count, ELF64_R_SYM(relocation.r_info) + 1);
    }
    const auto symbols = image_.ReadAt<Elf64_Sym>(entries_[DT_SYMTAB], count * sizeof(Elf64_Sym));
    for (const Elf64_Rela& relocation : relocations) {
      const std::uint64_t index = ELF64_R_SYM(relocation.r_info);
      if (index >= symbols.size()) continue;
      std::string name = Text(symbols[index].st_name);
      if (std::find(functions_.begin(), functions_.end(), name) == functions_.end()) continue;
      result_.imports.push_back(
          {std::move(name), relocation.r_offset, jump, symbols[index].st_shndx != SHN_UNDEF});
    }
  }

  const Image& image_;
  const std::vector<std::string>& functions_;
  std::map<std::int64_t, std::uint64_t> entries_;  // of the dynamic section; 0 if missing
  std::vector<char> strings_;
  DynamicFile result_;
};

}  // namespace

std::optional<ElfInfo> ReadElf(const std::string& path) {
  const Image image(path);
  return image.IsValid() ? std::optional(image.Info()) : std::nullopt;
}

std::string MachineName(std::uint16_t machine) {
  if (machine == EM_X86_64) return "x86-64";
  if (machine == EM_AARCH64) return "aarch64";
  return "machine " + std::to_string(machine);
}

std::uint16_t OwnMachine() {
#ifdef __aarch64__
  return EM_AARCH64;
#else
  return EM_X86_64;
#endif
}

std::optional<DynamicFile> ReadDynamicFile(const std::string& path,
                                           const std::vector<std::string>& functions) {
  return DynamicReader(Image(path), functions).Read();
}

}  // namespace memleak
