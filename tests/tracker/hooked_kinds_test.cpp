// The commands of the hooked kinds and of the descriptor tracker, and the choice of targets.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>

#include "fakes.h"
#include "hook_fakes.h"
#include "tracker/HookTargets.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/MemTrackControl.h"
#include "tracker/SignalControl.h"

/// Where libfdtrack.so is found; "" for nowhere.
static std::string fdtrack_file;

extern "C" void* __real_dlopen(const char* name, int flags);
extern "C" void* __wrap_dlopen(const char* name, int flags) {
  if (std::strcmp(name, "libfdtrack.so") != 0) return __real_dlopen(name, flags);
  EXPECT_EQ(flags, RTLD_LAZY);
  return __real_dlopen(fdtrack_file.empty() ? "/nowhere/libfdtrack.so" : fdtrack_file.c_str(),
                       flags);
}

namespace {

using Lines = std::vector<std::string>;

class HookedKindsTest : public testing::Test {
 protected:
  void SetUp() override {
    fake::Hooks() = {};
    is_plt_hook = false;
    ASSERT_TRUE(track_initialize(&fake::Dispatch(), fake::ZygoteFlag(), ""));
    fake::Reset();
    fake::Now().backtrace_size = 25;
  }
  void TearDown() override {
    Send(0x800000);
    track_finalize();
  }

  /// Carries a command out; returns what it logged after its first line.
  static Lines Send(std::uint64_t word, std::uint32_t parameter = 0x00200041) {
    siginfo_t info = {};
    std::memcpy(reinterpret_cast<char*>(&info) + 16, &word, sizeof word);
    std::memcpy(reinterpret_cast<char*>(&info) + 24, &parameter, sizeof parameter);
    TrackSigaction(44, &info, nullptr);
    Lines log = fake::TakeLog();
    EXPECT_FALSE(log.empty());
    if (!log.empty()) log.erase(log.begin());
    return log;
  }
};

struct Case {
  std::uint64_t word;
  Lines log;
  std::uint32_t type;     ///< from NATIVE
  bool start, ever;       ///< from (false, false), of the hooked kinds
  std::uint32_t bt_size;  ///< from 7, type from 8
  const char* events;
};

TEST_F(HookedKindsTest, EveryCommandAndWhereASignalEnds) {
  constexpr char kHooked[] = "enable(1) hook(libgsl.so,munmap,munmap) hook(libgsl.so,ioctl,gpu)";
  constexpr char kUnhooked[] = "unhook(libgsl.so,munmap,munmap) unhook(libgsl.so,ioctl,gpu)";
  const std::string hooked = kHooked;
  const std::string unhooked = kUnhooked;
  const std::string report = unhooked + " Report()";
  const Lines started = {"I Start dumping allocations of the process program", "I start Start"};
  const Lines mmap_on = {"I set mmaphook to:true, btsize:25, btType:0"};
  const std::string missing = "libfdtrack does not exist, fail to ";
  const Case cases[] = {
      {0x100, mmap_on, MMAP, true, true, 7, kHooked},
      {0x200, {"I set mmaphook to:false"}, MMAP, false, true, 7, ""},
      {0x400, started, MMAP, false, false, 7, report.c_str()},
      {0x800, {"I mmap clear:program"}, MMAP, false, false, 7, "Initialize()"},
      {0x1000, {"I set ionhook to:true, btsize:25, btType:0"}, ION, true, true, 7, kHooked},
      {0x2000, {"I set ionhook to:false"}, NATIVE, false, true, 7, ""},
      {0x4000, started, NATIVE, false, false, 7, report.c_str()},
      {0x8000, {"I ion clear:program"}, NATIVE, false, false, 7, "Initialize()"},
      {0x10000, {"I set gpuhook to:true, btsize:25, btType:0"}, GPU, true, true, 7, kHooked},
      {0x20000, {"I set gpuhook to:false"}, NATIVE, false, true, 7, ""},
      {0x40000, started, NATIVE, false, false, 7, report.c_str()},
      {0x80000, {"I gpu clear:program"}, NATIVE, false, false, 7, "Initialize()"},
      // Descriptors, their library not to be found: only a failed dump lets the rest run.
      {0x200000, {"E " + missing + "disable."}, NATIVE, false, false, 7, ""},
      {0x208000, {"E " + missing + "disable."}, NATIVE, false, false, 7, ""},
      {0xC08000,
       {"E " + missing + "dump stack.", "I ion clear:program"},
       NATIVE,
       false,
       false,
       0,
       "Initialize() Initialize()"},
      {0x800000, {}, NATIVE, false, false, 0, "Initialize()"},
      // Several: mmap before descriptors before ion before gpu.
      {0x10A00,
       {"I set mmaphook to:false", "I mmap clear:program",
        "I set gpuhook to:true, btsize:25, btType:0"},
       GPU,
       true,
       true,
       7,
       "Initialize() enable(1) hook(libgsl.so,munmap,munmap) hook(libgsl.so,ioctl,gpu)"},
  };
  fake::Hooks().libraries = "libgsl.so";
  fake::Hooks().functions = "munmap,ioctl";
  MemTrackControl* control = MemTrackControl::GetInstance();
  for (const Case& expected : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << expected.word);
    ASSERT_TRUE(GetHookParams());
    mem_track_type = NATIVE;
    control->ConfigHookStatus(true, true);
    control->ConfigPltHookStatus(false, false);
    is_plt_hook = false;
    signal_bt_size = 7;
    signal_bt_type = 8;
    fake::TakeEvents();
    EXPECT_EQ(Send(expected.word), expected.log);
    EXPECT_EQ(MemTrackControl::GetMemTrackType(), expected.type);
    EXPECT_EQ(control->GetPltHookStart(), expected.start);
    EXPECT_EQ(control->GetPltHookEverStarted(), expected.ever);
    EXPECT_EQ(is_plt_hook, expected.start);
    EXPECT_TRUE(control->GetHookStart() && control->GetHookEverStarted());
    EXPECT_EQ(signal_bt_size, expected.bt_size);
    EXPECT_EQ(signal_bt_type, expected.bt_size == 0 ? 0 : 8);
    // A report comes from a thread of its own.
    std::string events;
    for (int tries = 0; tries < 500 && events.size() < std::strlen(expected.events); ++tries) {
      if (tries != 0) usleep(1000);
      const std::string more = fake::TakeEvents();
      events += (events.empty() || more.empty() ? "" : " ") + more;
    }
    EXPECT_EQ(events, expected.events);
  }
}

TEST_F(HookedKindsTest, WithoutTargetsOrHooksNothingIsSwitchedOn) {
  MemTrackControl* control = MemTrackControl::GetInstance();
  fake::Hooks().libraries = "liba.so";
  EXPECT_EQ(Send(0x1100), Lines());
  EXPECT_EQ(MemTrackControl::GetMemTrackType(), MMAP) << "bit 12 is not carried out";
  fake::Hooks() = {};
  fake::Hooks().functions = "mmap";
  EXPECT_EQ(Send(0x1000), Lines());
  fake::Hooks() = {"liba.so,libb.so", "mmap,mremap", true, {"mmap", "mremap"}, nullptr};
  const Lines log = Send(0x90100, 0);
  const Lines expected = {"E plt init error: Operation not permitted",
                          "E plt hook mmap error: No such file or directory",
                          "E plt hook mremap error: No such file or directory",
                          "E plt hook mmap error: No such file or directory",
                          "E plt hook mremap error: No such file or directory",
                          "E all plt hook failed!"};
  EXPECT_EQ(log, expected);
  EXPECT_FALSE(control->GetPltHookStart() || control->GetPltHookEverStarted() || is_plt_hook);

  // One pair is enough. What is unhooked are the targets of the latest on.
  fake::Hooks().refused = {"mremap"};
  EXPECT_EQ(Send(0x100).back(), "I set mmaphook to:true, btsize:25, btType:0");
  fake::Hooks().libraries = "libc.so";
  EXPECT_EQ(Send(0x400)[0], "E plt unhook mremap error: No such file or directory");
  EXPECT_FALSE(is_plt_hook);
}

TEST_F(HookedKindsTest, TargetsAreTakenLiterally) {
  fake::Hooks().libraries = "libfoo.so,,libdmabufheap.so,";
  fake::Hooks().functions = ",mmap, munmap,__mmap2,mmap64,ioctl";
  fake::TakeEvents();
  ASSERT_TRUE(GetHookParams());
  EXPECT_TRUE(hook_by_plt());
  EXPECT_EQ(fake::TakeEvents(),
            "enable(1) hook(libfoo.so,mmap,mmap64) hook(libfoo.so,__mmap2,__mmap2) "
            "hook(libfoo.so,mmap64,mmap64) hook(libdmabufheap.so,mmap,mmap64) "
            "hook(libdmabufheap.so,__mmap2,__mmap2) hook(libdmabufheap.so,mmap64,mmap64) "
            "hook(libdmabufheap.so,ioctl,ion)");
  // An unset property leaves the targets as they are.
  fake::Hooks().libraries = "libnew.so";
  fake::Hooks().functions = "";
  EXPECT_FALSE(GetHookParams());
  unhook_by_plt();
  EXPECT_EQ(fake::TakeEvents().substr(0, 30), "unhook(libfoo.so,mmap,mmap64) ");
  EXPECT_EQ(get_key_from_fun_and_lib("ioctl", "libgsl.so"), "ioctl_libgsl.so");
}

/// The calls that the fixture has seen since the last time.
std::string TakeCalls(const char* file) {
  void* handle = dlopen(file, RTLD_NOW);
  auto* calls = static_cast<char*>(dlsym(handle, "fdtrack_calls"));
  std::string result = calls;
  calls[0] = '\0';
  return result;  // stays loaded, so that what follows is seen after it was closed
}

TEST_F(HookedKindsTest, DescriptorCommandsAreForwarded) {
  fdtrack_file.clear();
  const Lines failed = Send(0x108000);
  ASSERT_EQ(failed.size(), 1U);
  EXPECT_EQ(failed[0].rfind("E  load libfdtrack failed: /nowhere/libfdtrack.so:", 0), 0U);

  fdtrack_file = FDTRACK_NONE;
  TakeCalls(FDTRACK_NONE);
  EXPECT_EQ(Send(0x300000 | 0x8000), Lines{"I ion clear:program"});
  EXPECT_EQ(TakeCalls(FDTRACK_NONE), "enable(32,65) disable ");
  EXPECT_EQ(Send(0x600000 | 0x800000 | 0x8000), Lines()) << "a dump that worked ends the signal";
  EXPECT_EQ(TakeCalls(FDTRACK_NONE), "disable dump ");
  EXPECT_EQ(signal_bt_size, 32U);
  EXPECT_EQ(Send(0x800000), Lines());
  EXPECT_EQ(Send(0x200000), Lines{"E libfdtrack does not exist, fail to disable."});
  EXPECT_EQ(TakeCalls(FDTRACK_NONE), "");

  // Without one of its functions the library is given up.
  fdtrack_file = FDTRACK_ENABLE;
  EXPECT_EQ(Send(0x108000), Lines{"E no EnableFdHook found, fail to enable."});
  fdtrack_file = FDTRACK_DISABLE;
  EXPECT_EQ(Send(0x308000), Lines{"E no DisableFdHook found, fail to disable."});
  fdtrack_file = FDTRACK_DUMP;
  const Lines expected = {"E no DumpFdleakStackToFile found, fail to dumpstack.",
                          "I ion clear:program"};
  EXPECT_EQ(Send(0x508000), expected);
  EXPECT_EQ(Send(0x200000), Lines{"E libfdtrack does not exist, fail to disable."});
}

}  // namespace
