// SPDX-License-Identifier: Apache-2.0
// From mapping offsets to functions and lines, with a library whose lines are known.
#include "tools/symbols/symbolizer.h"

#include <dlfcn.h>
#include <elf.h>
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

#ifndef FIXTURE_ARM64_SYMBOLS  // no cross compiler for another architecture
#define FIXTURE_ARM64_SYMBOLS FIXTURE_SYMBOLS
#endif

#include "tests/temporary_directory.h"
#include "tests/tools/shell.h"
#include "tools/symbols/code_ranges.h"
#include "tools/symbols/demangle.h"

namespace memleak {
namespace {

std::uint64_t FirstNumber(const std::string& command) {
  return std::strtoull(Shell(command).output.c_str(), nullptr, 16);
}

// The offset of a symbol in the executable mapping.
std::uint64_t OffsetOf(const std::string& path, const std::string& name) {
  const std::uint64_t value = FirstNumber("{ nm " + path + "; nm -D " + path +
                                          "; } 2>/dev/null | grep -E ' " + name + "(@|$)'");
  const std::uint64_t segment =
      FirstNumber("readelf -lW " + path + " | awk '/LOAD/ && / R E / { print $3 }'");
  EXPECT_NE(value, 0U) << name << " in " << path;
  return value - segment / 4096 * 4096;
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
  // The path may now name another file.
  EXPECT_FALSE(symbolizer.StateOf(std::string(FIXTURE_SYMBOLS) + " (deleted)").found);
}

std::uint32_t LineOfPlain(const std::string& path, const SymbolOptions& options) {
  Symbolizer symbolizer(options);
  const Symbols& symbols =
      symbolizer.Resolve(path, OffsetOf(FIXTURE_SYMBOLS, "fixture_plain")).symbols;
  return symbols.empty() ? 0 : symbols[0].line;
}

// Strips the fixture to "lib.so" in `directory` and its debug information to "lib.debug".
void Strip(const TemporaryDirectory& directory, const std::string& remove = "") {
  const Outcome outcome =
      Shell("cd " + directory.Path("") + " && objcopy --only-keep-debug " + remove +
            " " FIXTURE_SYMBOLS " lib.debug && objcopy --strip-all " + remove +
            " --add-gnu-debuglink=lib.debug " FIXTURE_SYMBOLS " lib.so");
  ASSERT_EQ(outcome.code, 0) << outcome.output;
}

// libdwfl does the search. The help text lists these places.
TEST(Symbolizer, FindsSeparateDebugFilesOfTheSameBuild) {
  const TemporaryDirectory directory;
  Strip(directory);
  const std::string path = directory.Path("lib.so");
  EXPECT_EQ(LineOfPlain(path, {}), 113U) << "beside it, by its link";
  const std::string hint = Symbolizer({.symbol_dirs = {"/"}}).StateOf(path).hint;
  EXPECT_EQ(hint, "");
  const std::string debug = directory.Path("lib.debug");
  std::filesystem::create_directory(directory.Path("elsewhere"));
  std::filesystem::rename(debug, directory.Path("elsewhere/debug"));
  EXPECT_EQ(LineOfPlain(path, {}), 0U);
  const std::string missing = Symbolizer().StateOf(path).hint;
  EXPECT_EQ(missing.rfind(".build-id/", 0), 0U) << missing;
  for (const std::string& place :
       {missing, std::string("lib.debug"), std::string("lib.so"), "below/" + path}) {
    const std::filesystem::path target = directory.Path("symbols/" + place);
    std::filesystem::create_directories(target.parent_path());
    std::filesystem::copy_file(directory.Path("elsewhere/debug"), target);
    EXPECT_EQ(LineOfPlain(path, {.symbol_dirs = {"/", directory.Path("symbols"),
                                                 directory.Path("symbols/below")}}),
              113U)
        << place;
    std::filesystem::remove_all(directory.Path("symbols"));
  }
  const TemporaryDirectory other;
  Strip(other, "-R .note.gnu.build-id");
  EXPECT_EQ(LineOfPlain(other.Path("lib.so"), {}), 113U) << "by the checksum in its link";
  std::ofstream(other.Path("lib.debug"), std::ios::app) << "changed";
  EXPECT_EQ(LineOfPlain(other.Path("lib.so"), {}), 0U) << "of another build";
}

TEST(Symbolizer, SysrootReplacesTheRootDirectory) {
  const TemporaryDirectory device;
  std::filesystem::create_directories(device.Path("system/lib64"));
  std::filesystem::copy(FIXTURE_SYMBOLS, device.Path("system/lib64/libdevice.so"));
  const SymbolOptions sysroot{.sysroot = device.Path("")};
  EXPECT_EQ(LineOfPlain("/system/lib64/libdevice.so", sysroot), 113U);
  EXPECT_EQ(LineOfPlain("/system/lib64/libdevice.so (deleted)", sysroot), 113U);
  EXPECT_EQ(LineOfPlain(FIXTURE_SYMBOLS, sysroot), 0U) << "this machine is not the device";
  const SymbolOptions symbols{.symbol_dirs = {device.Path("system/lib64")}};
  EXPECT_EQ(LineOfPlain("/data/app/base.apk!/lib/arm64/libdevice.so", symbols), 113U);
}

// The parts of an ELF file that are read: one executable segment at 0x5000 with three calls.
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

TEST(Symbolizer, PageSizeFollowsFromTheCalls) {
  elf_version(EV_CURRENT);
  const auto guess = [](std::uint16_t machine, std::uint64_t align,
                        const std::vector<std::uint64_t>& offsets) {
    std::vector<char> image = CodeFile(machine, align);
    Elf* elf = elf_memory(image.data(), image.size());
    const std::uint64_t page = GuessPageBytes(elf, offsets);
    elf_end(elf);
    return page;
  };
  const std::vector<std::uint64_t> small = {0x100, 0x204, 0x309};     // a call, or its second byte
  const std::vector<std::uint64_t> large = {0x1104, 0x1208, 0x1000};  // after calls, except one
  EXPECT_EQ(guess(EM_AARCH64, 0x4000, small), 4096U);
  EXPECT_EQ(guess(EM_AARCH64, 0x4000, large), 16384U);
  EXPECT_EQ(guess(EM_AARCH64, 0x1000, large), 4096U) << "cannot be loaded with larger pages";
  EXPECT_EQ(guess(EM_AARCH64, 0x4000, {0x1104, 0x700, 0x800}), 4096U) << "chance";
  EXPECT_EQ(guess(EM_X86_64, 0x4000, large), 4096U);
  EXPECT_EQ(GuessPageBytes(nullptr, large), 4096U);
  EXPECT_EQ(FileAddress(0x234, 0x11f80), 0x11234U);
  EXPECT_EQ(FileAddress(0x234, 0x15f80, 16384), 0x14234U);
}

TEST(Symbolizer, AsksAServerOnlyOnRequest) {
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
  const TemporaryDirectory directory;
  Strip(directory);
  std::filesystem::remove(directory.Path("lib.debug"));
  EXPECT_TRUE(Symbolizer().StateOf(directory.Path("lib.so")).found);
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
  // Each argument contains the previous one twice.
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
