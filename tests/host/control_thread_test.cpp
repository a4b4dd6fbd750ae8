// The parts of the loader that have threads, without the loader: the control thread under commands
// and forks, the arena, the wait for the last report. A handler here plays the tracker's. Unlike
// the loader itself these run in the sanitizer builds, too.
#include "host/control_thread.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "host/allocator_table.h"
#include "host/bootstrap_arena.h"
#include "host/exit_report.h"
#include "host/next_allocator.h"
#include "tests/control_signal.h"
#include "tests/temporary_directory.h"

// The loader's other files take over malloc; the table that would do so is not used here.
void host::UseAllocator(const AllocatorTable&) {}

namespace host {
namespace {

constexpr uint64_t kCount = 0x20;
constexpr uint64_t kSlow = 0x20'0000;
constexpr uint64_t kReport = 0x40;
constexpr int kLongMs = 60'000;

// AddressSanitizer keeps locks of its own across a fork as they are: while another thread is about
// to start, it holds that of its list of threads or of its allocator, and the child waits for it
// without end as soon as it starts one. So nothing may start or end a thread while another forks,
// however long that takes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kPatienceMs = kLongMs;
#else
constexpr int kPatienceMs = kForkPatienceMs;
#endif

// Plain on purpose: only the control thread writes it, and RunCommand is what makes it visible.
int carried_out = 0;
std::atomic<int> arrived{0};
std::atomic<int> result_inside{0};
std::atomic<uint32_t> last_parameter{0};
// Written before on_report_set, which the handler reads first: a signal orders nothing that a
// sanitizer could see.
std::function<void()> on_report;
std::atomic<bool> on_report_set{false};

void OnCommand(int, siginfo_t* info, void*) {
  const ControlWords command = ReadControlWords(info);
  delete new int(1);  // the tracker's handler allocates
  last_parameter = command.parameter;
  if (command.word == kSlow) {
    usleep(300'000);
    result_inside = RunCommand({kCount, 0}, kLongMs);
  }
  if (command.word == kReport && on_report_set) on_report();
  ++carried_out;
  ++arrived;
}

bool WaitForCommands(int count) {
  for (int i = 0; i < 5000 && arrived < count; ++i) usleep(2000);
  return arrived == count;
}

int ExitCode(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ControlThreadTest : public testing::Test {
 protected:
  void SetUp() override {
    carried_out = 0;
    arrived = 0;
    BlockControlSignal();
    struct sigaction action = {};
    action.sa_sigaction = OnCommand;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(sigaction(44, &action, nullptr), 0);
    ASSERT_EQ(StartControlThread(), 0);
    [[maybe_unused]] static const int registered = KeepControlThreadAcrossForks(kPatienceMs);
  }
  void TearDown() override {
    ASSERT_TRUE(StopControlThread(kLongMs));
    on_report_set = false;
    RestoreControlSignal();
  }
};

TEST_F(ControlThreadTest, CarriesOutEachCommandOnceWhoeverSendsIt) {
  constexpr int kEach = 200;
  std::thread senders[2];
  for (std::thread& sender : senders) {
    sender = std::thread([] {
      for (uint32_t i = 0; i < kEach; ++i) {
        EXPECT_EQ(RunCommand({kCount, i}, kLongMs), 0);
        EXPECT_TRUE(SendControlSignal(getpid(), kCount));
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
  ASSERT_TRUE(WaitForCommands(4 * kEach));
  EXPECT_EQ(RunCommand({kCount, 77}, kLongMs), 0);
  EXPECT_EQ(carried_out, 4 * kEach + 1);
  EXPECT_EQ(last_parameter, 77U);
}

TEST_F(ControlThreadTest, WaitsForACommandNoLongerThanAsked) {
  EXPECT_EQ(RunCommand({kSlow, 0}, 20), ETIMEDOUT);
  EXPECT_FALSE(StopControlThread(20));
  // Behind the slow one, which found out that it must not wait for itself.
  EXPECT_EQ(RunCommand({kCount, 0}, kLongMs), 0);
  EXPECT_EQ(carried_out, 2);
  EXPECT_EQ(result_inside, EDEADLK);
}

TEST_F(ControlThreadTest, CommandsOutliveAStop) {
  for (int round = 1; round <= 20; ++round) {
    ASSERT_TRUE(StopControlThread(kLongMs));
    EXPECT_EQ(RunCommand({kCount, 0}, kLongMs), ESRCH);
    ASSERT_TRUE(SendControlSignal(getpid(), kCount));
    EXPECT_EQ(arrived, round - 1);
    ASSERT_EQ(StartControlThread(), 0);
    ASSERT_TRUE(WaitForCommands(round));
  }
}

/// Parents and children carry commands out whatever was in flight when they forked, on two threads.
TEST_F(ControlThreadTest, ForkStorm) {
  std::atomic<bool> over{false};
  std::atomic<int> sent{0};
  std::thread sender([&] {
    for (; !over; ++sent) {
      EXPECT_EQ(RunCommand({kCount, 1}, kLongMs), 0);
      usleep(200);
    }
  });
  // Nobody forks while a thread comes up or ends: see kPatienceMs.
  std::atomic<int> passed{0};
  const auto meet = [&](int count) {
    for (++passed; passed < count || sent == 0;) usleep(200);
  };
  const auto fork_often = [&] {
    meet(2);
    for (int round = 0; round < 15; ++round) {
      const pid_t child = fork();
      if (child == 0) {
        const int before = carried_out;
        if (RunCommand({kCount, 2}, 20'000) != 0 || carried_out != before + 1) _exit(1);
        _exit(StopControlThread(20'000) ? 7 : 2);
      }
      EXPECT_EQ(ExitCode(child), 7);
    }
    meet(4);
  };
  std::thread other(fork_often);
  fork_often();
  other.join();
  over = true;
  sender.join();
  EXPECT_EQ(RunCommand({kCount, 0}, kLongMs), 0);
  EXPECT_EQ(carried_out, sent + 1);
}

TEST(CatchLateCommands, OnlyWhereThereIsNoHandler) {
  BlockControlSignal();
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  ASSERT_EQ(sigaction(44, &action, nullptr), 0);
  CatchLateCommands();
  ASSERT_TRUE(SendControlSignal(getpid(), kCount));
  RestoreControlSignal();  // would kill
  action.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(44, &action, nullptr), 0);
  CatchLateCommands();
  ASSERT_EQ(sigaction(44, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
}

/// Several threads take all there is: zeroed, aligned blocks that nobody shares; then ENOMEM.
TEST(BootstrapArena, IsSharedOutUntilItIsFull) {
  std::vector<std::pair<unsigned char*, size_t>> taken[4];
  std::thread takers[4];
  for (unsigned char number = 0; number < 4; ++number) {
    takers[number] = std::thread([&mine = taken[number], number] {
      for (size_t i = 0;; ++i) {
        const size_t alignment = size_t{1} << (i % 9);
        const size_t size = i * 7 % 200 + 1;
        auto* block = static_cast<unsigned char*>(ArenaAllocate(alignment, size));
        if (block == nullptr) break;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % std::max<size_t>(alignment, 16), 0U);
        EXPECT_EQ(std::count(block, block + size, 0), static_cast<ptrdiff_t>(size));
        memset(block, number + 1, size);
        mine.emplace_back(block, size);
      }
      EXPECT_EQ(errno, ENOMEM);
    });
  }
  for (std::thread& taker : takers) taker.join();
  size_t all = 0;
  for (unsigned char number = 0; number < 4; ++number) {
    for (const auto& [block, size] : taken[number]) {
      EXPECT_EQ(ArenaBlockSize(block), size);
      EXPECT_EQ(std::count(block, block + size, number + 1), static_cast<ptrdiff_t>(size));
      all += size;
    }
  }
  EXPECT_GT(all, size_t{64} << 10);
  EXPECT_EQ(ArenaAllocate(16, SIZE_MAX), nullptr);
}

class ExitReportTest : public ControlThreadTest {
 protected:
  void SetUp() override {
    ControlThreadTest::SetUp();
    setenv("MEMLEAK_TRACKER_ROOT", directory_.Path("root.%p/").c_str(), 1);
    CaptureReportRoot();
    unsetenv("MEMLEAK_TRACKER_ROOT");
  }
  void TearDown() override {
    if (writer_.joinable()) writer_.join();
    ControlThreadTest::TearDown();
  }
  /// Has the report written in two steps by a thread of its own, as a dump thread does.
  void WriteOnReport(int before_ms, const char* text, int between_ms, const char* ending) {
    on_report = [=] {
      writer_ = std::thread([=] {
        pthread_setname_np(pthread_self(), "MemDumpThread");
        std::this_thread::sleep_for(std::chrono::milliseconds(before_ms));
        std::ofstream file(directory_.Path(report_));
        file << text << std::flush;
        std::this_thread::sleep_for(std::chrono::milliseconds(between_ms));
        file << ending;
      });
    };
    on_report_set = true;
  }
  /// What ReportAtExit says, which it does soon.
  static std::string Report(uint64_t word) {
    const auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStderr();
    ReportAtExit({word, 0});
    std::string said = testing::internal::GetCapturedStderr();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    return said;
  }
  static void ExpectOneLineWith(const std::string& text, const std::string& said) {
    EXPECT_NE(said.find(text), std::string::npos) << said;
    EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
  }

  const TemporaryDirectory directory_;
  const std::string root_ = "root." + std::to_string(getpid());
  const std::string report_ = root_ + "/data/log/reliability/allocations_dump";
  std::thread writer_;
};

/// Also for one who collects longer than a missing thread would be waited for.
TEST_F(ExitReportTest, WaitsForTheWholeOfTheNewReport) {
  WriteOnReport(0, "first EN", 60, "D, or not yet. END");
  EXPECT_EQ(Report(kReport), "");
  EXPECT_EQ(directory_.Read(report_), "first END, or not yet. END");
  writer_.join();
  WriteOnReport(3500, "second ", 300, "END");
  EXPECT_EQ(Report(kReport), "");
  EXPECT_EQ(directory_.Read(report_), "second END");
}

TEST_F(ExitReportTest, GivesUpSoonWhenNobodyWrites) {
  WriteOnReport(100, "cut off by a full disk", 100, "");
  ExpectOneLineWith("nobody writes it any more", Report(kReport));
}

/// Found out before anything is sent: no file, no report command.
TEST_F(ExitReportTest, DoesNotAskForWhatCannotBe) {
  ExpectOneLineWith("MEMLEAK_TRACKER_REPORT_AT_EXIT=0xb0 ", Report(0xb0));
  directory_.Write(root_, "a file where the directory should be");
  ExpectOneLineWith("cannot write " + directory_.Path(report_) + ": Not a directory",
                    Report(kReport));
  EXPECT_EQ(arrived, 0);
}

}  // namespace
}  // namespace host
