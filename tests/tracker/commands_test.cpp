// The control signal, sent to this process as a controller sends it: every command, the choice of
// targets, and the forwarding to the tracker of descriptors.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "fakes.h"
#include "tests/control_signal.h"
#include "tracker/HookTargets.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/control/MemTrackControl.h"

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

constexpr std::uint32_t kParameter = 0x00200041;  // size 32, type 'A'

/// Sends a command, waits for it, and returns what it logged after its first line.
Lines Send(std::uint64_t word, std::uint32_t parameter = kParameter) {
  EXPECT_TRUE(SendControlSignal(getpid(), word, parameter));
  // A sanitizer may put the handler off until the next call into the C library.
  Lines log;
  for (int tries = 0; tries < 500 && log.empty(); ++tries) {
    usleep(1000);
    log = fake::TakeLog();
  }
  if (log.empty()) return {"nothing received"};
  char first[80];
  std::snprintf(first, sizeof first, "I received_sig 44;addr:%#lx", word);
  EXPECT_EQ(log[0], first);
  log.erase(log.begin());
  return log;
}

class CommandsTest : public testing::Test {
 protected:
  void SetUp() override {
    fake::Hooks() = {};
    is_plt_hook = false;
    ASSERT_TRUE(track_initialize(&fake::Dispatch(), fake::ZygoteFlag(), ""));
    fake::Reset();
    fake::Now().backtrace_size = 25;
  }
  void TearDown() override { track_finalize(); }
};

/// The switches: kind, native (start, ever), hooked (start, ever), size and type of backtraces.
std::string State() {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  EXPECT_EQ(is_plt_hook, control->GetPltHookStart());
  std::ostringstream text;
  text << MemTrackControl::GetMemTrackType() << " " << control->GetHookStart()
       << control->GetHookEverStarted() << " " << control->GetPltHookStart()
       << control->GetPltHookEverStarted() << " " << signal_bt_size << "," << signal_bt_type;
  return text.str();
}

/// What has happened since the last time. A report comes from a thread of its own.
std::string WaitForEvents(std::size_t bytes) {
  std::string events;
  for (int tries = 0; tries < 500 && events.size() < bytes; ++tries) {
    if (tries != 0) usleep(1000);
    const std::string more = fake::TakeEvents();
    events += (events.empty() || more.empty() ? "" : " ") + more;
  }
  return events;
}

TEST_F(CommandsTest, EveryBitAndWhereASignalEnds) {
  const std::string on = "enable(1) hook(libgsl.so,munmap,munmap) hook(libgsl.so,ioctl,gpu)";
  const std::string report = "unhook(libgsl.so,munmap,munmap) unhook(libgsl.so,ioctl,gpu) Report()";
  const std::string native_on = "I set hook to:true, btsize:25, btType:0";
  const Lines started = {"I Start dumping allocations of the process program", "I start Start"};
  const Lines no_disable = {"E libfdtrack does not exist, fail to disable."};
  const struct {
    std::uint64_t word;
    Lines log;
    const char* state;  // from "9 11 00 7,8"
    std::string events;
  } cases[] = {
      {0xFFFFFFFFF0000009, {}, "9 11 00 7,8", ""},
      {0x10, {native_on}, "0 11 00 32,65", ""},
      {0x20, {"I set hook to:false"}, "0 01 00 7,8", ""},
      {0x40, started, "0 00 00 7,8", "Report()"},
      {0x80, {"I native clear:program"}, "0 11 00 0,0", "Initialize()"},
      {0x100, {"I set mmaphook to:true, btsize:25, btType:0"}, "1 11 11 7,8", on},
      {0x200, {"I set mmaphook to:false"}, "1 11 01 7,8", ""},
      {0x400, started, "1 11 00 7,8", report},
      {0x800, {"I mmap clear:program"}, "1 11 00 7,8", "Initialize()"},
      {0x1000, {"I set ionhook to:true, btsize:25, btType:0"}, "2 11 11 7,8", on},
      {0x2000, {"I set ionhook to:false"}, "9 11 01 7,8", ""},
      {0x4000, started, "9 11 00 7,8", report},
      {0x8000, {"I ion clear:program"}, "9 11 00 7,8", "Initialize()"},
      {0x10000, {"I set gpuhook to:true, btsize:25, btType:0"}, "3 11 11 7,8", on},
      {0x20000, {"I set gpuhook to:false"}, "9 11 01 7,8", ""},
      {0x40000, started, "9 11 00 7,8", report},
      {0x80000, {"I gpu clear:program"}, "9 11 00 7,8", "Initialize()"},
      // Descriptors, their library not to be found: only a failed dump lets the rest run.
      {0x200000, no_disable, "9 11 00 7,8", ""},
      {0x208000, no_disable, "9 11 00 7,8", ""},
      {0xC08000,
       {"E libfdtrack does not exist, fail to dump stack.", "I ion clear:program"},
       "9 11 00 0,0",
       "Initialize() Initialize()"},
      {0x800000, {}, "9 11 00 0,0", "Initialize()"},
      // Several: native in the order of the bits; mmap before descriptors before ion before gpu.
      {0x90, {native_on, "I native clear:program"}, "0 11 00 0,0", "Initialize()"},
      {0x70,
       {native_on, "I set hook to:false", started[0], started[1]},
       "0 00 00 32,65",
       "Report()"},
      {0x10A00,
       {"I set mmaphook to:false", "I mmap clear:program",
        "I set gpuhook to:true, btsize:25, btType:0"},
       "3 11 11 7,8",
       "Initialize() " + on},
  };
  fake::Hooks().libraries = "libgsl.so";
  fake::Hooks().functions = "munmap,ioctl";
  for (const auto& expected : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << expected.word);
    ASSERT_TRUE(GetHookParams());
    mem_track_type = 9;
    MemTrackControl::GetInstance()->ConfigHookStatus(true, true);
    MemTrackControl::GetInstance()->ConfigPltHookStatus(false, false);
    is_plt_hook = false;
    signal_bt_size = 7;
    signal_bt_type = 8;
    fake::TakeEvents();
    EXPECT_EQ(Send(expected.word), expected.log);
    EXPECT_EQ(State(), expected.state);
    EXPECT_EQ(WaitForEvents(expected.events.size()), expected.events);
  }
}

TEST_F(CommandsTest, AReportsThreadTakesNoCommands) {
  static std::atomic<int> blocked{-1};
  fake::OnReport([] {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    blocked = sigismember(&mask, 44);
  });
  Send(0x40);
  while (blocked < 0) usleep(1000);
  EXPECT_EQ(blocked, 1) << "a clear command on the report's thread would wait for itself";
}

std::string order;

TEST_F(CommandsTest, CallbacksRunInOrderAfterTheNativeCommands) {
  EXPECT_FALSE(RegistryAllocateTracker(2, nullptr));
  EXPECT_FALSE(RegistryAllocateTracker(6, [] {}));
  EXPECT_TRUE(RegistryAllocateTracker(4, [] {
    order += MemTrackControl::GetInstance()->GetHookStart() ? "4on " : "4 ";
    errno = EBADF;
  }));
  RegistryAllocateTracker(5, [] { order += "5 "; });
  order.clear();
  errno = 0;
  EXPECT_EQ(Send(0x16, 0), Lines{"I set hook to:true, btsize:25, btType:0"});
  EXPECT_EQ(order, "4on 5 ");
  EXPECT_NE(errno, EBADF) << "the interrupted thread keeps its errno";
  Send(0x4, 0);
  EXPECT_EQ(order, "4on 5 5 ");
}

TEST_F(CommandsTest, WithoutTargetsOrHooksNothingIsSwitchedOn) {
  fake::Hooks().libraries = "liba.so";
  EXPECT_EQ(Send(0x1100), Lines());
  EXPECT_EQ(MemTrackControl::GetMemTrackType(), protocol::MMAP) << "bit 12 is not carried out";
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
  EXPECT_EQ(State().substr(1, 6), " 00 00");

  // One pair is enough. What is unhooked are the targets of the latest on.
  fake::Hooks().refused = {"mremap"};
  EXPECT_EQ(Send(0x100).back(), "I set mmaphook to:true, btsize:25, btType:0");
  fake::Hooks().libraries = "libc.so";
  EXPECT_EQ(Send(0x400)[0], "E plt unhook mremap error: No such file or directory");
  EXPECT_FALSE(is_plt_hook);
}

TEST_F(CommandsTest, TargetsAreTakenLiterally) {
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

TEST_F(CommandsTest, DescriptorCommandsAreForwarded) {
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
