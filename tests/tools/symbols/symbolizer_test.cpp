// From mapping offsets to functions and lines, on a library whose lines are known.
#include "tools/symbols/symbolizer.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gelf.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#ifndef FIXTURE_ARM64_SYMBOLS  // no cross compiler, or it is this machine's
#define FIXTURE_ARM64_SYMBOLS FIXTURE_SYMBOLS
#endif

#include "tests/temporary_directory.h"
#include "tools/symbols/code_ranges.h"
#include "tools/symbols/demangle.h"

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

// A file of one executable segment at 0x5000, as far as it is looked at, with three calls.
std::vector<char> CodeFile(std::uint16_t machine, std::uint64_t align) {
  std::vector<char> image(0x2000);
  Elf64_Ehdr header{};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_type = ET_DYN;
  header.e_machine = machine;
  header.e_version = EV_CURRENT;
  header.e_ehsize = sizeof header;
  header.e_phoff = sizeof header;
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = 1;
  const Elf64_Phdr segment = {PT_LOAD, PF_R | PF_X, 0x1000, 0x5000, 0x5000, 0x1000, 0x1000, align};
  std::memcpy(image.data(), &header, sizeof header);
  std::memcpy(&image[sizeof header], &segment, sizeof segment);
  for (const std::size_t place : {0x1100U, 0x1204U, 0x1308U}) {
    const std::uint32_t call = place == 0x1204 ? 0xd63f0100U : 0x97ffff00U;  // blr x8, bl
    std::memcpy(&image[place], &call, sizeof call);
  }
  return image;
}

TEST(Symbolizer, PageSizeFollowsFromWhereCallsAre) {
  elf_version(EV_CURRENT);
  const auto guess = [](std::uint16_t machine, std::uint64_t align,
                        const std::vector<std::uint64_t>& offsets) {
    std::vector<char> image = CodeFile(machine, align);
    Elf* elf = elf_memory(image.data(), image.size());
    const std::uint64_t page = GuessPageBytes(elf, offsets);
    elf_end(elf);
    return page;
  };
  const std::vector<std::uint64_t> small = {0x100, 0x204, 0x309};     // the call, or a byte into it
  const std::vector<std::uint64_t> large = {0x1104, 0x1208, 0x1000};  // behind calls, but for one
  EXPECT_EQ(guess(EM_AARCH64, 0x4000, small), 4096U);
  EXPECT_EQ(guess(EM_AARCH64, 0x4000, large), 16384U);
  EXPECT_EQ(guess(EM_AARCH64, 0x1000, large), 4096U) << "cannot be loaded with larger pages";
  EXPECT_EQ(guess(EM_AARCH64, 0x4000, {0x1104, 0x700, 0x800}), 4096U) << "chance";
  EXPECT_EQ(guess(EM_X86_64, 0x4000, large), 4096U);
  EXPECT_EQ(GuessPageBytes(nullptr, large), 4096U);
  EXPECT_EQ(FileAddress(0x234, 0x11f80), 0x11234U);
  EXPECT_EQ(FileAddress(0x234, 0x15f80, 16384), 0x14234U);
}

TEST(Symbolizer, AsksNoServerUnlessToldTo) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(bind(listener, generic, length), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  ASSERT_EQ(getsockname(listener, generic, &length), 0);
  const std::string server = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  setenv("DEBUGINFOD_URLS", server.c_str(), 1);
  const StrippedLibrary library(true);
  library.MoveDebug("elsewhere.debug");
  EXPECT_TRUE(Symbolizer().StateOf(library.Path()).found);
  EXPECT_LT(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), 0);
  close(listener);
}

TEST(Symbolizer, Names) {
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
    bomb.append("S_I").append(last).append(last).append("E");
    last = std::string("S") + digits[static_cast<std::size_t>(level) + 1] + "_";
  }
  EXPECT_EQ(Demangle(bomb), bomb);
}

}  // namespace
}  // namespace memleak
