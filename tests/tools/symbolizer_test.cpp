// From mapping offsets to functions and lines, on a library whose lines are known.
#include "tools/report/symbolizer.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gelf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#ifndef FIXTURE_ARM64_SYMBOLS  // no cross compiler, or it is this machine's
#define FIXTURE_ARM64_SYMBOLS FIXTURE_SYMBOLS
#endif

#include "tests/temporary_directory.h"
#include "tools/report/demangle.h"

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
  const Symbols& inlined = symbolizer.Resolve(path, OffsetOf(path, "fixture_spot")).symbols;
  ASSERT_EQ(inlined.size(), 2U);
  EXPECT_EQ(inlined[0].function, "known::Inner(int*)");
  EXPECT_NE(inlined[0].file.find("known_source.cpp"), std::string::npos);
  EXPECT_EQ(inlined[1].function, "known::Widget::Use(int*)");
  EXPECT_EQ(inlined[1].line, 109U);
  const Symbols& plain = symbolizer.Resolve(path, OffsetOf(path, "fixture_plain")).symbols;
  ASSERT_EQ(plain.size(), 1U);
  EXPECT_EQ(plain[0].function, "fixture_plain");
  EXPECT_EQ(plain[0].line, 113U);
  EXPECT_TRUE(symbolizer.StateOf(path).found);
  EXPECT_EQ(symbolizer.StateOf(path).hint, "");
}

INSTANTIATE_TEST_SUITE_P(Symbolizer, KnownLibrary,
                         testing::Values(FIXTURE_SYMBOLS, FIXTURE_ARM64_SYMBOLS));

TEST(Symbolizer, FallsBackToTheSymbolTable) {
  Dl_info info;
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&getpid), &info), 0);
  const std::string path = std::filesystem::canonical(info.dli_fname).string();
  Symbolizer symbolizer;
  const Symbols& symbols = symbolizer.Resolve(path, OffsetOf(path, "getpid")).symbols;
  ASSERT_FALSE(symbols.empty());
  EXPECT_NE(symbols[0].function.find("getpid"), std::string::npos);
}

TEST(Symbolizer, NamesWithoutFilesHaveNoSymbols) {
  Symbolizer symbolizer;
  for (const char* name : {"", "[vdso]", "/no/such/lib.so", "/dev/null", "/etc/passwd"}) {
    EXPECT_TRUE(symbolizer.Resolve(name, 0x10).symbols.empty()) << name;
    EXPECT_FALSE(symbolizer.StateOf(name).found) << name;
    EXPECT_EQ(symbolizer.StateOf(name).hint, name[0] == '/' ? name : "");
  }
  EXPECT_TRUE(symbolizer.Resolve(FIXTURE_SYMBOLS, 0x7fffffffffff).symbols.empty());
  // Another file may stand there by now.
  EXPECT_FALSE(symbolizer.StateOf(std::string(FIXTURE_SYMBOLS) + " (deleted)").found);
}

/// A stripped copy of the fixture, without a build id when `id` is unset, and what was taken off
/// it.
class StrippedLibrary {
 public:
  explicit StrippedLibrary(bool id) {
    const std::string remove = id ? "" : " -R .note.gnu.build-id";
    Run(std::string("objcopy --only-keep-debug ") + remove + " " FIXTURE_SYMBOLS " " + Debug());
    Run("objcopy --strip-all" + remove + " --add-gnu-debuglink=" + Debug() +
        " " FIXTURE_SYMBOLS " " + Path());
  }

  std::string Path() const { return directory_.Path("libstripped.so"); }
  std::string Debug() const { return directory_.Path("libstripped.debug"); }
  /// Moves the debug file to `place` below a directory of its own, which is returned.
  std::string MoveDebug(const std::string& place) const {
    const std::filesystem::path target = directory_.Path("symbols/" + place);
    std::filesystem::create_directories(target.parent_path());
    std::filesystem::rename(Debug(), target);
    return directory_.Path("symbols");
  }

  static void Run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0); }

 private:
  TemporaryDirectory directory_;
};

std::uint32_t LineOfSpot(const std::string& path, const SymbolOptions& options) {
  Symbolizer symbolizer(options);
  const Symbols& symbols =
      symbolizer.Resolve(path, OffsetOf(FIXTURE_SYMBOLS, "fixture_plain")).symbols;
  return symbols.empty() ? 0 : symbols[0].line;
}

TEST(Symbolizer, FindsSeparateDebugFiles) {
  {
    const StrippedLibrary library(true);
    EXPECT_EQ(LineOfSpot(library.Path(), {}), 113U) << "beside it, by its link";
    Symbolizer symbolizer;
    const std::string id = symbolizer.StateOf(library.Path()).build_id;
    ASSERT_EQ(id.size(), 40U);
    const std::string place = ".build-id/" + id.substr(0, 2) + "/" + id.substr(2) + ".debug";
    const std::string directory = library.MoveDebug(place);
    EXPECT_EQ(LineOfSpot(library.Path(), {}), 0U);
    EXPECT_EQ(Symbolizer().StateOf(library.Path()).hint, place);
    EXPECT_EQ(LineOfSpot(library.Path(), {.symbol_dirs = {"/", directory}}), 113U);
  }
  for (const char* place : {"libstripped.debug", "libstripped.so"}) {
    const StrippedLibrary library(true);
    const std::string directory = library.MoveDebug(place);
    EXPECT_EQ(LineOfSpot(library.Path(), {.symbol_dirs = {directory}}), 113U) << place;
  }
}

TEST(Symbolizer, LeavesDebugFilesOfOtherBuildsAlone) {
  const StrippedLibrary other(true);
  const StrippedLibrary plain(false);
  EXPECT_EQ(LineOfSpot(plain.Path(), {}), 113U) << "by the checksum of its link";
  std::ofstream(plain.Debug(), std::ios::app) << "changed";
  EXPECT_EQ(LineOfSpot(plain.Path(), {}), 0U);
  StrippedLibrary::Run("cp " + other.Debug() + " " + plain.Debug());
  EXPECT_EQ(LineOfSpot(plain.Path(), {}), 0U) << "has a build id, the library has none";
}

TEST(Symbolizer, SysrootStandsForTheDevice) {
  const TemporaryDirectory device;
  std::filesystem::create_directories(device.Path("system/lib64"));
  std::filesystem::copy(FIXTURE_SYMBOLS, device.Path("system/lib64/libdevice.so"));
  const SymbolOptions sysroot{.sysroot = device.Path("")};
  EXPECT_EQ(LineOfSpot("/system/lib64/libdevice.so", sysroot), 113U);
  EXPECT_EQ(LineOfSpot("/system/lib64/libdevice.so (deleted)", sysroot), 113U);
  EXPECT_EQ(LineOfSpot(FIXTURE_SYMBOLS, sysroot), 0U) << "this machine is not the device";
  const SymbolOptions symbols{.symbol_dirs = {device.Path("system/lib64")}};
  EXPECT_EQ(LineOfSpot("/data/app/base.apk!/lib/arm64/libdevice.so", symbols), 113U);
}

TEST(Symbolizer, AddressRuleAndNames) {
  EXPECT_EQ(FileAddress(0x234, 0x1000), 0x1234U);
  EXPECT_EQ(FileAddress(0x234, 0x11f80), 0x11234U);
  EXPECT_EQ(Demangle("_ZN5known5InnerEPi"), "known::Inner(int*)");
  EXPECT_EQ(Demangle("_ZN5alloc3vec12Vec$LT$T$GT$4push17h0123456789abcdefE"),
            "alloc::vec::Vec<T>::push");
  EXPECT_EQ(Demangle("_RNvNtCs1234_7mycrate3foo3bar"), "mycrate::foo::bar");
  EXPECT_EQ(Demangle("i"), "i");
  EXPECT_EQ(Demangle("_Zbroken"), "_Zbroken");
  // Each argument holds the one before twice.
  std::string bomb = "_Z1f1AIiiE";
  const std::string digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  std::string last = "S0_";
  for (int level = 0; level < 34; ++level) {
    bomb += "S_I" + last + last + "E";
    last = std::string("S") + digits[static_cast<std::size_t>(level) + 1] + "_";
  }
  EXPECT_EQ(Demangle(bomb), bomb);
}

}  // namespace
}  // namespace memleak
