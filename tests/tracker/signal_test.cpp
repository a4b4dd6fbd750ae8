// The control signal, sent to this process as a controller sends it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "fakes.h"
#include "tests/control_signal.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/MemTrackControl.h"

namespace {

constexpr char kOn[] = "I set hook to:true, btsize:25, btType:1";
constexpr char kPaused[] = "I set hook to:false";
constexpr char kReport[] = "I Start dumping allocations of the process program";
constexpr char kStarted[] = "I start Start";
constexpr char kClear[] = "I native clear:program";

/// Sends a command, waits for it, and returns what it logged after its first line.
std::vector<std::string> Send(std::uint64_t word, std::uint32_t parameter) {
  EXPECT_TRUE(SendControlSignal(getpid(), word, parameter));
  // A sanitizer may put the handler off until the next call into the C library.
  std::vector<std::string> log;
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

class SignalTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(track_initialize(&fake::Dispatch(), fake::ZygoteFlag(), ""));
    fake::Reset();
    fake::Now().backtrace_size = 25;
    fake::Now().backtrace_type = '1';
  }
  void TearDown() override { track_finalize(); }
};

struct Case {
  std::uint64_t word;
  std::vector<std::string> log;
  bool start;
  bool ever;
  bool type_is_native;
  std::uint32_t size;
  std::uint32_t type;
};

TEST_F(SignalTest, WordsMoveTheSwitches) {
  // From (on, true): what each word leaves behind. The parameter asks for size 32 and type 'A'.
  const Case cases[] = {
      {0xFFFFFFFF01000009, {}, true, true, false, 7, 8},
      {0x10, {kOn}, true, true, true, 32, 0x41},
      {0x20, {kPaused}, false, true, true, 7, 8},
      {0x40, {kReport, kStarted}, false, false, true, 7, 8},
      {0x80, {kClear}, true, true, true, 0, 0},
      {0x90, {kOn, kClear}, true, true, true, 0, 0},
      {0xF0, {kOn, kPaused, kReport, kStarted, kClear}, false, false, true, 0, 0},
  };
  MemTrackControl* control = MemTrackControl::GetInstance();
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.word);
    control->ConfigHookStatus(true, true);
    mem_track_type = ION;
    signal_bt_size = 7;
    signal_bt_type = 8;
    EXPECT_EQ(Send(expected.word, 0x00200041), expected.log);
    EXPECT_EQ(control->GetHookStart(), expected.start);
    EXPECT_EQ(control->GetHookEverStarted(), expected.ever);
    EXPECT_EQ(MemTrackControl::GetMemTrackType(), expected.type_is_native ? NATIVE : ION);
    EXPECT_EQ(signal_bt_size, expected.size);
    EXPECT_EQ(signal_bt_type, expected.type);
    EXPECT_FALSE(control->GetPltHookStart() || control->GetPltHookEverStarted());
  }
}

TEST_F(SignalTest, ClearEmptiesTheStoreAndReportComesFromAnotherThread) {
  Send(0x80, 0);
  EXPECT_NE(fake::TakeEvents().find("Initialize()"), std::string::npos);
  static std::atomic<int> blocked{-1};
  fake::OnReport([] {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    blocked = sigismember(&mask, 44);
  });
  Send(0x40, 0);
  while (blocked < 0) usleep(1000);
  EXPECT_EQ(blocked, 1) << "a clear command on the report's thread would wait for itself";
}

std::string order;

TEST_F(SignalTest, CallbacksRunInOrderAfterTheNativeCommands) {
  EXPECT_FALSE(RegistryAllocateTracker(2, nullptr));
  EXPECT_FALSE(RegistryAllocateTracker(6, [] {}));
  EXPECT_TRUE(RegistryAllocateTracker(4, [] {
    order += MemTrackControl::GetInstance()->GetHookStart() ? "4on " : "4 ";
    errno = EBADF;
  }));
  RegistryAllocateTracker(5, [] { order += "5 "; });
  order.clear();
  errno = 0;
  EXPECT_EQ(Send(0x16, 0), std::vector<std::string>{kOn});
  EXPECT_EQ(order, "4on 5 ");
  EXPECT_NE(errno, EBADF) << "the interrupted thread keeps its errno";
  Send(0x4, 0);
  EXPECT_EQ(order, "4on 5 5 ");
}

}  // namespace
