// SPDX-License-Identifier: Apache-2.0
// What can be hooked, according to files, maps, memory and log. The tests load a fixture library
// into this process and change its slot.
#include "tools/target/hook_targets.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "tests/temporary_directory.h"
#include "tools/target/hook_outcome.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

constexpr const char* kPlain = "libtools_hook_plain.so";

const Import* FindImport(const DynamicFile& file, const std::string& function) {
  for (const Import& import : file.imports) {
    if (import.function == function) return &import;
  }
  return nullptr;
}

TEST(DynamicFile, DistinguishesJumpSlotsFromAddresses) {
  const auto plain = ReadDynamicFile(FIXTURE_HOOK_PLAIN, HookableFunctions());
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->soname, kPlain);
  EXPECT_FALSE(plain->debug_entry);
  EXPECT_EQ(plain->imports.size(), 3U);
  ASSERT_NE(FindImport(*plain, "munmap"), nullptr);
  EXPECT_TRUE(FindImport(*plain, "munmap")->jump_slot);
  EXPECT_EQ(FindImport(*plain, "mremap"), nullptr);
  const auto no_plt = ReadDynamicFile(FIXTURE_HOOK_NO_PLT, HookableFunctions());
  ASSERT_TRUE(no_plt && FindImport(*no_plt, "munmap") != nullptr);
  EXPECT_FALSE(FindImport(*no_plt, "munmap")->jump_slot);
  EXPECT_FALSE(ReadDynamicFile("/dev/zero", HookableFunctions()));
}

// Damaged files never cause a read outside of the file. The sanitizers check this.
TEST(DynamicFile, DamagedFilesAreSafe) {
  const TemporaryDirectory directory;
  const std::string whole = ReadTextFile(FIXTURE_HOOK_PLAIN).value_or("");
  ASSERT_GT(whole.size(), 4096U);
  std::size_t readable = 0;
  const auto read = [&](const std::string& bytes) {
    const auto file = ReadDynamicFile(directory.Write("damaged.so", bytes), HookableFunctions());
    if (file) ++readable;
  };
  for (std::size_t size = 0; size < whole.size(); size += 509) read(whole.substr(0, size));
  // Overwrites the headers and the dynamic section, eight bytes at a time. The section starts with
  // DT_INIT.
  const std::string dynamic("\x0c\0\0\0\0\0\0\0", 8);
  for (const std::size_t start : {std::size_t{0}, whole.find(dynamic, 4096)}) {
    for (std::size_t at = start; at < start + 512 && at + 8 <= whole.size(); at += 8) {
      for (const int byte : {0x00, 0x7f, 0xff}) {
        std::string bytes = whole;
        std::memset(&bytes[at], byte, 8);
        read(bytes);
      }
    }
  }
  EXPECT_GT(readable, 100U);
}

TEST(Names, AreStrippedOnceAndLimitedInLength) {
  EXPECT_EQ(ParseNames("--lib", " /usr/lib/liba.so, my lib.so\t,,liba.so"),
            (std::vector<std::string>{"liba.so", "my lib.so"}));
  EXPECT_THROW(ParseNames("--lib", " ,/,"), UserError);
  EXPECT_THROW(ParseNames("--lib", "a\nvastel=1"), UserError);
  const auto fits = [](std::size_t bytes) {
    WithHooks("", {{std::string(45, 'a'), std::string(bytes, 'b')}, {"mmap"}});
  };
  EXPECT_NO_THROW(fits(45));
  EXPECT_THROW(fits(46), UserError);
  EXPECT_EQ(WithHooks("persist.sys.memleak.hookLib=old\nvastel.memleak.backtacetype=1\nx=y\n",
                      {{"liba.so", "libb.so"}, {"mmap"}}),
            "x=y\nvastel.memleak.backtacetype=0\npersist.sys.memleak.hookLib=liba.so,libb.so\n"
            "persist.sys.memleak.hookFunc=mmap\n");
  for (const char* name : {"liba.so", "liba.so.1", "mmap.cpython-311.so", "liba.so.1.0.22"}) {
    EXPECT_TRUE(IsLibraryName(name)) << name;
  }
  for (const char* name : {"liba.so.", "liba.so.1a", "liba.so..1", "program", ""}) {
    EXPECT_FALSE(IsLibraryName(name)) << name;
  }
}

TEST(Maps, ReadsBlanksDeletedFilesAndDamage) {
  const std::vector<Mapping> mappings = ParseMaps(
      "7f00-7f10 r-xp 00001000 08:01 42    /a b/lib.so (deleted)\nnonsense\n7f10-7f2\n"
      "8000-9000 rwxp 00000000 00:00 0 \n9000-b000 rwxp 0 0:0 0 [anon:plthooks plt trampolines]\n");
  ASSERT_EQ(mappings.size(), 3U);
  EXPECT_EQ(mappings[0].path, "/a b/lib.so");
  EXPECT_TRUE(mappings[0].deleted && mappings[0].executable);
  EXPECT_EQ(mappings[0].offset, 0x1000U);
  EXPECT_EQ(mappings[1].path, "");
  EXPECT_EQ(TrampolineBytes(mappings), 0x3000U);
}

TEST(Log, StateOfTheHooksAfterTheLastCommand) {
  EXPECT_EQ(HooksFromLog("received_sig 44;addr:0x10\nset hook to:true\n"), "");
  std::string log = "received_sig 44;addr:0x100\nset mmaphook to:true, btsize:10, btType:0\n";
  EXPECT_EQ(HooksFromLog(log), "mmap on");
  EXPECT_EQ(HooksFromLog(log + "received_sig 44;addr:0x1000\nall plt hook failed!\n"), "mmap on");
  log += "set ionhook to:false\n";
  EXPECT_EQ(HooksFromLog(log), "ion paused");
  const std::string off = "recording off (stopped by a report)";
  EXPECT_EQ(HooksFromLog(log + "received_sig 44;addr:0x4000\n"), off);
  // Several commands in one word: in the tracker's order, until an "on" fails.
  const std::string on = "set mmaphook to:true, btsize:10, btType:0\n";
  EXPECT_EQ(HooksFromLog("received_sig 44;addr:0x500\n" + on), off);
  EXPECT_EQ(HooksFromLog("received_sig 44;addr:0x300\n" + on + "set mmaphook to:false\n"),
            "mmap paused");
  EXPECT_EQ(HooksFromLog(log + "received_sig 44;addr:0x500\nall plt hook failed!\n"), "ion paused");
  EXPECT_EQ(HooksFromLog(log + "received_sig 44;addr:0x1400\nset ionhook to:true\n"), "ion on");
  EXPECT_EQ(HooksFromLog("received_sig 44;addr:0x4000\n"), "") << "of the heap, which goes on";
}

/// The fixture library in this process.
class Loaded : public testing::Test {
 protected:
  Loaded() : handle_(dlopen(FIXTURE_HOOK_LINK, RTLD_NOW)), memory_(getpid()) {
    dlopen(FIXTURE_HOOK_NO_PLT, RTLD_NOW);
    process_.pid = getpid();
    process_.name = "test";
    Refresh();
  }
  void Refresh() { loaded_ = ReadLoadedLibraries(process_, memory_, HookableFunctions()); }
  const LoadedLibrary* Library(const std::string& name) const {
    for (const LoadedLibrary& library : loaded_.libraries) {
      if (library.name == name) return &library;
    }
    return nullptr;
  }
  // Makes the slot of `function` point to `target`. Returns its old value.
  void* Turn(const char* function, void* target) const {
    const LoadedLibrary* library = Library("libother_name.so.3");
    if (library == nullptr) return nullptr;
    const std::uint64_t slot = library->bias + FindImport(*library->file, function)->slot;
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    mprotect(reinterpret_cast<void*>(slot & ~(page - 1)), page, PROT_READ | PROT_WRITE);
    return std::exchange(*reinterpret_cast<void**>(slot), target);
  }
  HookPlan Plan(const HookRequest& request) const {
    return PlanHooks(process_, loaded_, request, memory_);
  }

  void* handle_;
  ProcessMemory memory_;
  ProcessInfo process_;
  LoadedLibraries loaded_;
};

// The tracker uses the name with which a library was loaded. Here that is a link to it.
TEST_F(Loaded, UsesTheNameOfLoading) {
  ASSERT_NE(handle_, nullptr) << dlerror();
  ASSERT_NE(Library("libother_name.so.3"), nullptr);
  EXPECT_EQ(Library(kPlain), nullptr);
  const HookPlan plan = Plan({{kPlain}, {"mmap", "mremap", "munmap"}, false});
  EXPECT_EQ(plan.libraries, std::vector<std::string>{"libother_name.so.3"});
  EXPECT_EQ(plan.functions, (std::vector<std::string>{"mmap", "munmap"}));
  EXPECT_TRUE(plan.problems.empty());
}

TEST_F(Loaded, EachProblemIsOneLine) {
  const auto expect = [&](const std::string& library, const std::string& function,
                          const std::string& part) {
    const HookPlan plan = Plan({{library}, {function}, true});
    EXPECT_TRUE(plan.pairs.empty());
    ASSERT_EQ(plan.problems.size(), 1U) << library << " " << function;
    EXPECT_NE(std::string(plan.problems[0].what()).find(part), std::string::npos)
        << plan.problems[0].what();
  };
  expect("libabsent.so", "mmap", "libabsent.so is not loaded in ");
  expect(kPlain, "mremap", "does not import mremap");
  expect(kPlain, "ioctl", "ioctl cannot be hooked in libother_name.so.3");
  expect(kPlain, "read", "read cannot be hooked");
  expect("libtools_hook_no_plt.so", "munmap", "-fno-plt");
  expect("tools_hook_targets_test", "mmap", "is the program itself");
  void* before = Turn("munmap", dlsym(handle_, "use_memory"));
  expect(kPlain, "munmap", "has not resolved munmap yet");
  Turn("munmap", before);
}

// The settings name libraries and functions in separate lists. So a pair that the plan leaves out
// is hooked if other pairs name its library and its function.
TEST_F(Loaded, LeavesTwoSlotsOutUnlessOtherPairsIncludeThem) {
  for (LoadedLibrary& library : loaded_.libraries) {
    if (library.name != "libother_name.so.3") continue;
    library.file->imports.push_back(*FindImport(*library.file, "munmap"));
    LoadedLibrary other = library;
    other.name = "libother.so";
    other.file->imports.pop_back();
    loaded_.libraries.push_back(other);
    break;
  }
  const auto problem = [&](const HookPlan& plan) {
    return plan.problems.size() == 1 ? std::string(plan.problems[0].what()) : "";
  };
  const HookPlan alone = Plan({{kPlain}, {"mmap", "munmap"}, true});
  EXPECT_EQ(alone.functions, std::vector<std::string>{"mmap"});
  EXPECT_NE(problem(alone).find("requires exactly one"), std::string::npos) << problem(alone);
  const HookPlan both = Plan({{kPlain, "libother.so"}, {"mmap", "munmap"}, true});
  EXPECT_EQ(both.pairs.size(), 3U);
  EXPECT_NE(problem(both).find("hooked there anyway"), std::string::npos) << problem(both);
}

TEST_F(Loaded, ReadsTheOutcomeFromLogOrSlots) {
  const TemporaryDirectory directory;
  const HookPlan plan = Plan({{kPlain}, {"mmap", "munmap"}, true});
  const Kind& kind = protocol::KindOf(protocol::MMAP);
  void* code =
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  void* before = Turn("munmap", code);
  process_.log = directory.Path("log");
  const LogTail log(process_);
  ASSERT_TRUE(log.IsReadable());
  const std::string pid = std::to_string(getpid());
  directory.Write(
      "log", "1.5 1 1 E MemLeak.Native: all plt hook failed!\n1.5 " + pid +
                 " 1 E MemLeak.Native: plt hook mmap error: No such file or directory\n1.6 " + pid +
                 " 1 I MemLeak.Native: set mmaphook to:true, btsize:10, btType:0\n");
  const HookOutcome told = WaitForHooks(process_, kind, plan, log, memory_, 0);
  EXPECT_EQ(told.result, HookResult::kHooked);
  EXPECT_EQ(told.complaints,
            std::vector<std::string>{"plt hook mmap error: No such file or directory"});
  ASSERT_EQ(told.hooked.size(), 1U);
  EXPECT_EQ(told.hooked[0].function, "munmap");

  // All of the plan is hooked: only errors for which the engine gave a reason are reported.
  const std::string line = "1.7 " + pid + " 1 E ";
  Refresh();
  const HookPlan one = Plan({{kPlain}, {"munmap"}, true});
  directory.Write("log", line + "x: GOT entry not part of a DSO: 0x1\n" + line +
                             "x: plt hook munmap error: Too many links\n" + line +
                             "x: plt hook mmap error: No such file or directory\n1.8 " + pid +
                             " 1 I x: set mmaphook to:true, btsize:10, btType:0\n");
  EXPECT_EQ(WaitForHooks(process_, kind, one, log, memory_, 0).complaints,
            (std::vector<std::string>{"GOT entry not part of a DSO: 0x1",
                                      "plt hook munmap error: Too many links"}));
  const std::vector<HookPair> hooked = AllHookedPairs(process_, memory_);
  ASSERT_EQ(hooked.size(), 1U);
  EXPECT_EQ(hooked[0].library + " " + hooked[0].function, "libother_name.so.3 munmap");

  process_.log.clear();
  EXPECT_EQ(WaitForHooks(process_, kind, one, LogTail(process_), memory_, 0).result,
            HookResult::kHooked);
  Turn("munmap", before);
  EXPECT_EQ(WaitForHooks(process_, kind, one, LogTail(process_), memory_, 0).result,
            HookResult::kNothing);
  munmap(code, 4096);
}

}  // namespace
}  // namespace memleak
