// From mapping offsets to functions and lines, on a library whose lines are known.
#include "tools/symbolizer.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gelf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#ifndef FIXTURE_ARM64_SYMBOLS  // no cross compiler, or it is this machine's
#define FIXTURE_ARM64_SYMBOLS FIXTURE_SYMBOLS
#endif

namespace memleak {
namespace {

// The mapping offset of a symbol, from the file's own tables.
std::uint64_t OffsetOf(const std::string& path, const std::string& name) {
  elf_version(EV_CURRENT);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Elf* elf = elf_begin(file, ELF_C_READ, nullptr);
  std::uint64_t page = 0;
  std::size_t segments = 0;
  elf_getphdrnum(elf, &segments);
  for (std::size_t i = 0; i < segments; ++i) {
    GElf_Phdr segment;
    gelf_getphdr(elf, static_cast<int>(i), &segment);
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) page = segment.p_vaddr / 4096;
  }
  std::uint64_t value = 0;
  for (Elf_Scn* section = elf_nextscn(elf, nullptr); section != nullptr;
       section = elf_nextscn(elf, section)) {
    GElf_Shdr header;
    gelf_getshdr(section, &header);
    if (header.sh_type != SHT_SYMTAB && header.sh_type != SHT_DYNSYM) continue;
    Elf_Data* data = elf_getdata(section, nullptr);
    GElf_Sym symbol;
    for (int i = 0; gelf_getsym(data, i, &symbol) != nullptr; ++i) {
      if (name == elf_strptr(elf, header.sh_link, symbol.st_name)) value = symbol.st_value;
    }
  }
  elf_end(elf);
  close(file);
  EXPECT_NE(value, 0U) << name << " in " << path;
  return value - page * 4096;
}

class KnownLibrary : public testing::TestWithParam<const char*> {};

TEST_P(KnownLibrary, HasInlinedAndPlainFunctions) {
  const std::string path = GetParam();
  Symbolizer symbolizer;
  const Symbols& inlined = symbolizer.Resolve(path, OffsetOf(path, "fixture_spot"));
  ASSERT_EQ(inlined.size(), 2U);
  EXPECT_EQ(inlined[0].function, "known::Inner(int*)");
  EXPECT_NE(inlined[0].file.find("known_source.cpp"), std::string::npos);
  EXPECT_EQ(inlined[1].function, "known::Widget::Use(int*)");
  EXPECT_EQ(inlined[1].line, 109);
  const Symbols& plain = symbolizer.Resolve(path, OffsetOf(path, "fixture_plain"));
  ASSERT_EQ(plain.size(), 1U);
  EXPECT_EQ(plain[0].function, "fixture_plain");
  EXPECT_EQ(plain[0].line, 113);
  EXPECT_TRUE(symbolizer.MissingFiles().empty());
}

INSTANTIATE_TEST_SUITE_P(Symbolizer, KnownLibrary,
                         testing::Values(FIXTURE_SYMBOLS, FIXTURE_ARM64_SYMBOLS));

TEST(Symbolizer, FallsBackToTheSymbolTable) {
  Dl_info info;
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&getpid), &info), 0);
  const std::string path = std::filesystem::canonical(info.dli_fname).string();
  Symbolizer symbolizer;
  const Symbols& symbols = symbolizer.Resolve(path, OffsetOf(path, "getpid"));
  ASSERT_FALSE(symbols.empty());
  EXPECT_NE(symbols[0].function.find("getpid"), std::string::npos);
}

TEST(Symbolizer, NamesWithoutFilesHaveNoSymbols) {
  Symbolizer symbolizer;
  for (const char* name : {"", "[vdso]", "/no/such/lib.so", "/dev/null", "/etc/passwd"}) {
    EXPECT_TRUE(symbolizer.Resolve(name, 0x10).empty()) << name;
  }
  EXPECT_TRUE(symbolizer.Resolve(FIXTURE_SYMBOLS, 0x7fffffffffff).empty());
  EXPECT_EQ(symbolizer.MissingFiles(),
            (std::vector<std::string>{"/dev/null", "/etc/passwd", "/no/such/lib.so"}));
}

}  // namespace
}  // namespace memleak
