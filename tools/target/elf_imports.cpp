// Reading of dynamic sections. Every size and address in a file may be wrong: all reads go through
// one function that stays inside the file and inside the segment.
#include "tools/target/elf_imports.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace memleak {
namespace {

// Relocations of slots, by the processors' ELF supplements: a C library's <elf.h> may have those of
// its own processor alone.
constexpr std::uint32_t kAarch64GlobDat = 1025;
constexpr std::uint32_t kAarch64JumpSlot = 1026;
constexpr std::uint32_t kX86GlobDat = 6;
constexpr std::uint32_t kX86JumpSlot = 7;

constexpr std::uint64_t kPageMask = 4095;

/// A file, read in pieces.
class File {
 public:
  explicit File(const std::string& path) {
    struct stat status {};
    // First what it is: opening a device may have effects.
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    file_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file_ >= 0) size_ = static_cast<std::uint64_t>(status.st_size);
  }
  ~File() {
    if (file_ >= 0) close(file_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  /// The whole entries among the `bytes` bytes at `offset`; fewer where the file ends.
  template <typename T>
  std::vector<T> Read(std::uint64_t offset, std::uint64_t bytes) const {
    if (offset >= size_) return {};
    std::vector<T> entries(std::min(bytes, size_ - offset) / sizeof(T));
    const std::size_t wanted = entries.size() * sizeof(T);
    std::size_t got = 0;
    while (got < wanted) {
      const ssize_t count = pread(file_, reinterpret_cast<char*>(entries.data()) + got,
                                  wanted - got, static_cast<off_t>(offset + got));
      if (count <= 0) break;
      got += static_cast<std::size_t>(count);
    }
    entries.resize(got / sizeof(T));
    return entries;
  }

 private:
  int file_ = -1;
  std::uint64_t size_ = 0;
};

// The entries of the dynamic section that are used here, by name; 0 where one is missing.
struct DynamicEntries {
  std::uint64_t jump_relocations = 0;
  std::uint64_t jump_relocation_bytes = 0;
  std::uint64_t relocations = 0;
  std::uint64_t relocation_bytes = 0;
  std::uint64_t symbols = 0;
  std::uint64_t strings = 0;
  std::uint64_t string_bytes = 0;
  std::optional<std::uint64_t> soname;
};

/// One file on its way to a DynamicFile.
class Reader {
 public:
  Reader(const std::string& path, const std::vector<std::string>& functions)
      : file_(path), functions_(functions) {}

  std::optional<DynamicFile> Read() {
    if (!ReadSegments()) return std::nullopt;
    const DynamicEntries entries = ReadDynamic();
    strings_ = ReadAt<char>(entries.strings, entries.string_bytes);
    if (entries.soname) result_.soname = Text(*entries.soname);
    AddImports(ReadAt<Elf64_Rela>(entries.jump_relocations, entries.jump_relocation_bytes),
               entries.symbols, true);
    AddImports(ReadAt<Elf64_Rela>(entries.relocations, entries.relocation_bytes), entries.symbols,
               false);
    return std::move(result_);
  }

 private:
  bool ReadSegments() {
    const std::vector<Elf64_Ehdr> headers = file_.Read<Elf64_Ehdr>(0, sizeof(Elf64_Ehdr));
    if (headers.empty()) return false;
    const Elf64_Ehdr& header = headers.front();
    const bool usable = std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
                        header.e_ident[EI_CLASS] == ELFCLASS64 &&
                        header.e_ident[EI_DATA] == ELFDATA2LSB &&
                        header.e_phentsize == sizeof(Elf64_Phdr);
    if (!usable) return false;
    result_.machine = header.e_machine;
    segments_ = file_.Read<Elf64_Phdr>(header.e_phoff, header.e_phnum * sizeof(Elf64_Phdr));
    const auto load =
        std::find_if(segments_.begin(), segments_.end(),
                     [](const Elf64_Phdr& segment) { return segment.p_type == PT_LOAD; });
    if (load == segments_.end()) return false;
    result_.first_offset = load->p_offset & ~kPageMask;
    result_.first_address = load->p_vaddr & ~kPageMask;
    return std::any_of(segments_.begin(), segments_.end(),
                       [](const Elf64_Phdr& segment) { return segment.p_type == PT_DYNAMIC; });
  }

  // What the file holds at `address`, at most to the end of the segment.
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

  DynamicEntries ReadDynamic() {
    const auto dynamic =
        std::find_if(segments_.begin(), segments_.end(),
                     [](const Elf64_Phdr& segment) { return segment.p_type == PT_DYNAMIC; });
    DynamicEntries entries;
    std::uint64_t address = dynamic->p_vaddr;
    for (const Elf64_Dyn& entry : ReadAt<Elf64_Dyn>(dynamic->p_vaddr, dynamic->p_filesz)) {
      const std::uint64_t value = entry.d_un.d_val;
      if (entry.d_tag == DT_NULL) break;
      if (entry.d_tag == DT_JMPREL) entries.jump_relocations = value;
      if (entry.d_tag == DT_PLTRELSZ) entries.jump_relocation_bytes = value;
      if (entry.d_tag == DT_RELA) entries.relocations = value;
      if (entry.d_tag == DT_RELASZ) entries.relocation_bytes = value;
      if (entry.d_tag == DT_SYMTAB) entries.symbols = value;
      if (entry.d_tag == DT_STRTAB) entries.strings = value;
      if (entry.d_tag == DT_STRSZ) entries.string_bytes = value;
      if (entry.d_tag == DT_SONAME) entries.soname = value;
      if (entry.d_tag == DT_DEBUG) result_.debug_entry = address + offsetof(Elf64_Dyn, d_un);
      address += sizeof(entry);
    }
    return entries;
  }

  std::string Text(std::uint64_t offset) const {
    if (offset >= strings_.size()) return "";
    const auto start = strings_.begin() + static_cast<std::ptrdiff_t>(offset);
    return {start, std::find(start, strings_.end(), '\0')};
  }

  bool FillsSlot(const Elf64_Rela& relocation, bool jump) const {
    const auto type = ELF64_R_TYPE(relocation.r_info);
    if (result_.machine == EM_AARCH64) {
      return type == (jump ? kAarch64JumpSlot : kAarch64GlobDat);
    }
    return result_.machine == EM_X86_64 && type == (jump ? kX86JumpSlot : kX86GlobDat);
  }

  void AddImports(const std::vector<Elf64_Rela>& relocations, std::uint64_t symbols, bool jump) {
    std::uint64_t last = 0;
    for (const Elf64_Rela& relocation : relocations) {
      if (FillsSlot(relocation, jump)) {
        last = std::max<std::uint64_t>(last, ELF64_R_SYM(relocation.r_info));
      }
    }
    // The table's length stands nowhere; the relocations tell how much of it is needed.
    const std::vector<Elf64_Sym> table = ReadAt<Elf64_Sym>(symbols, (last + 1) * sizeof(Elf64_Sym));
    for (const Elf64_Rela& relocation : relocations) {
      const std::uint64_t index = ELF64_R_SYM(relocation.r_info);
      if (!FillsSlot(relocation, jump) || index >= table.size()) continue;
      const Elf64_Sym& symbol = table[index];
      std::string name = Text(symbol.st_name);
      if (std::find(functions_.begin(), functions_.end(), name) == functions_.end()) continue;
      result_.imports.push_back(
          {std::move(name), relocation.r_offset, jump, symbol.st_shndx != SHN_UNDEF});
    }
  }

  File file_;
  const std::vector<std::string>& functions_;
  std::vector<Elf64_Phdr> segments_;
  std::vector<char> strings_;
  DynamicFile result_;
};

}  // namespace

std::optional<DynamicFile> ReadDynamicFile(const std::string& path,
                                           const std::vector<std::string>& functions) {
  return Reader(path, functions).Read();
}

}  // namespace memleak
