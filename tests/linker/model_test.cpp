// SPDX-License-Identifier: Apache-2.0
// Compares the index of each library of this machine with libelf's view of its file.
#include <fcntl.h>
#include <gelf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "arch/relocation.h"
#include "linker/elfSharedLibData.h"
#include "tests/records/log_capture.h"

namespace lumora::linker {
namespace {

/// The contents of a file according to libelf.
struct Model {
  std::vector<GElf_Phdr> headers;
  std::set<std::string> defined;
  std::set<std::string> called;                             // undefined symbols that have a slot
  std::vector<std::string> names;                           // by symbol
  std::map<std::size_t, std::vector<std::uint64_t>> slots;  // by symbol
};

/// Returns false if the file is not a shared library of this architecture.
bool Read(int file, Model& model) {
  Elf* elf = elf_begin(file, ELF_C_READ_MMAP, nullptr);
  GElf_Ehdr header;
  if (elf == nullptr || gelf_getehdr(elf, &header) == nullptr || header.e_type != ET_DYN ||
      header.e_machine != LINKER_MACHINE) {
    elf_end(elf);
    return false;
  }
  model.headers.resize(header.e_phnum);
  for (int i = 0; i < header.e_phnum; ++i) {
    gelf_getphdr(elf, i, &model.headers[static_cast<std::size_t>(i)]);
  }
  GElf_Shdr shape;
  const auto find = [&](const auto& visit) {
    for (Elf_Scn* each = elf_nextscn(elf, nullptr); each != nullptr;
         each = elf_nextscn(elf, each)) {
      gelf_getshdr(each, &shape);
      visit(elf_getdata(each, nullptr));
    }
  };
  std::vector<GElf_Sym> symbols;
  find([&](Elf_Data* data) {
    if (shape.sh_type != SHT_DYNSYM) return;
    GElf_Sym symbol;
    for (int i = 0; gelf_getsym(data, i, &symbol) != nullptr; ++i) {
      symbols.push_back(symbol);
      model.names.emplace_back(elf_strptr(elf, shape.sh_link, symbol.st_name));
      const bool local = GELF_ST_BIND(symbol.st_info) == STB_LOCAL;
      if (symbol.st_shndx != SHN_UNDEF && !local) model.defined.insert(model.names.back());
    }
  });
  find([&](Elf_Data* data) {
    GElf_Rela each;
    if (shape.sh_type != SHT_RELA || (shape.sh_flags & SHF_ALLOC) == 0) return;
    for (int i = 0; gelf_getrela(data, i, &each) != nullptr; ++i) {
      const std::size_t symbol = GELF_R_SYM(each.r_info);
      if (symbol == 0 || symbol >= symbols.size()) continue;
      if (GELF_R_TYPE(each.r_info) != arch::kJumpSlotRelocation) continue;
      if (symbols[symbol].st_shndx == SHN_UNDEF) model.called.insert(model.names[symbol]);
      model.slots[symbol].push_back(each.r_offset);
    }
  });
  elf_end(elf);
  return !symbols.empty();
}

/// The file's segments in memory, as a loader maps them, but not relocated.
class Mapping {
 public:
  Mapping(int file, const Model& model) {
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    for (const GElf_Phdr& each : model.headers) {
      if (each.p_type == PT_LOAD) bytes_ = each.p_vaddr + each.p_memsz + page;
    }
    base_ = mmap(nullptr, bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    for (const GElf_Phdr& each : model.headers) {
      if (each.p_type != PT_LOAD || each.p_filesz == 0) continue;
      const std::uint64_t before = each.p_vaddr % page;
      const std::uint64_t at = reinterpret_cast<std::uint64_t>(base_) + each.p_vaddr - before;
      EXPECT_NE(mmap(reinterpret_cast<void*>(at), each.p_filesz + before, PROT_READ,
                     MAP_PRIVATE | MAP_FIXED, file, static_cast<off_t>(each.p_offset - before)),
                MAP_FAILED);
    }
  }
  ~Mapping() { munmap(base_, bytes_); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  std::uint64_t base() const { return reinterpret_cast<std::uint64_t>(base_); }

 private:
  void* base_;
  std::uint64_t bytes_ = 0;
};

void Check(int file, const Model& model) {
  const Mapping mapping(file, model);
  dl_phdr_info info{};
  info.dlpi_addr = mapping.base();
  info.dlpi_name = "lib.so";
  info.dlpi_phdr = model.headers.data();
  info.dlpi_phnum = static_cast<Elf64_Half>(model.headers.size());
  LogLines().clear();
  const elfSharedLibData library(&info);
  for (const std::string& line : LogLines()) {
    ASSERT_EQ(line.find("skipped"), std::string::npos) << line;
  }
  const std::size_t step = model.names.size() / 100 + 1;  // not all symbols of a large library
  for (std::size_t i = 1; i < model.names.size(); i += step) {
    const std::string& name = model.names[i];
    const Elf64_Sym* found = library.find_symbol_by_name(name.c_str());
    if (model.defined.count(name) != 0) {
      ASSERT_TRUE(found != nullptr && found->st_shndx != SHN_UNDEF) << name;
    } else if (model.called.count(name) != 0) {
      ASSERT_TRUE(found != nullptr && found->st_shndx == SHN_UNDEF) << name;
    }
    EXPECT_EQ(library.find_symbol_by_name((name + "~").c_str()), nullptr);
    if (found == nullptr) continue;
    const auto number = static_cast<std::size_t>(found - library.symtab_);
    ASSERT_EQ(model.names.at(number), name);
    std::vector<void**> slots;
    const auto expected = model.slots.find(number);
    if (expected != model.slots.end()) {
      for (const std::uint64_t slot : expected->second) {
        slots.push_back(reinterpret_cast<void**>(mapping.base() + slot));
      }
    }
    ASSERT_EQ(library.get_plt_relocations(found), slots) << name;
  }
}

TEST(Index, AgreesWithLibelfOnEveryLibrary) {
  ASSERT_NE(elf_version(EV_CURRENT), static_cast<unsigned>(EV_NONE));
  std::set<std::string> files;
  std::istringstream folders(LINKER_FOLDERS);
  for (std::string folder; std::getline(folders, folder, ':');) {
    std::error_code missing;
    for (const auto& each : std::filesystem::directory_iterator(folder, missing)) {
      const std::string name = each.path().filename();
      if (name.find(".so") == name.npos || !each.is_regular_file()) continue;
      files.insert(std::filesystem::canonical(each.path()));
    }
  }
  std::size_t checked = 0;
  for (const std::string& path : files) {
    SCOPED_TRACE(path);
    const int file = open(path.c_str(), O_RDONLY);
    Model model;
    if (file >= 0 && checked < LINKER_MOST_LIBRARIES && Read(file, model)) {
      ++checked;
      Check(file, model);
    }
    close(file);
    if (HasFailure()) break;
  }
  EXPECT_GT(checked, 10U);
}

}  // namespace
}  // namespace lumora::linker
