// SPDX-License-Identifier: Apache-2.0
// The control thread without the loader, under commands, reports and forks. A handler in this file
// replaces the tracker's. Unlike the loader, it runs in the sanitizer builds too.
#include "host/control_thread.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "tests/control_signal.h"

namespace host {
namespace {

constexpr uint64_t kCount = 0x20;
constexpr uint64_t kSlow = 0x20'0000;
constexpr uint64_t kReport = 0x40;
constexpr int kLongMs = 60'000;

// AddressSanitizer does not reset its locks at a fork. If another thread starts or ends during the
// fork, the child deadlocks when it starts a thread. So a fork waits for those threads.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kPatienceMs = kLongMs;
#else
constexpr int kPatienceMs = kForkPatienceMs;
#endif

std::atomic<int> result_inside{0};
std::atomic<uint32_t> last_parameter{0};
constexpr uint32_t kLastParameter = 99;
// The letters of the commands. Intentional: not atomic. Only the control thread writes it.
// RunCommand or the end of that thread makes it visible.
std::string delivered;
std::atomic<int> reports_running{0};
// Written before on_report_set, which the handler reads first: sanitizers do not see that a signal
// orders memory accesses.
std::function<void()> on_report;
std::atomic<bool> on_report_set{false};

/// A different letter for each word and parameter; odd for reports.
char Letter(const protocol::Command& command) {
  return static_cast<char>('A' + 2 * command.parameter % 32 + (command.word == kReport ? 0 : 1));
}

void OnCommand(int, siginfo_t* info, void*) {
  const protocol::Command command = protocol::ReadCommand(*info);
  delete new int(1);  // the tracker's handler allocates
  delivered += Letter(command);
  last_parameter = command.parameter;
  if (command.word == kSlow) {
    usleep(300'000);
    result_inside = RunCommand({kCount, 0}, kLongMs);
  }
  if (command.word == kReport && on_report_set) on_report();
}

int ExitCode(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ControlThreadTest : public testing::Test {
 protected:
  void SetUp() override {
    BlockControlSignal();
    struct sigaction action = {};
    action.sa_sigaction = OnCommand;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(sigaction(protocol::control_signal, &action, nullptr), 0);
    ASSERT_EQ(StartControlThread(), 0);
    [[maybe_unused]] static const int registered = KeepControlThreadAcrossForks(kPatienceMs);
  }
  static void SetOnReport(std::function<void()> action) {
    on_report = std::move(action);
    on_report_set = true;
  }
  void TearDown() override {
    ASSERT_TRUE(StopControlThread(kLongMs));
    on_report_set = false;
    RestoreControlSignal();
  }
};

TEST_F(ControlThreadTest, CommandsTimeOut) {
  EXPECT_EQ(RunCommand({kSlow, 0}, 20), ETIMEDOUT);
  EXPECT_FALSE(StopControlThread(20));
  // This command runs after the slow one. The slow one cannot wait for itself and gets EDEADLK.
  EXPECT_EQ(RunCommand({kCount, 0}, kLongMs), 0);
  EXPECT_EQ(delivered.size(), 2U);
  EXPECT_EQ(result_inside, EDEADLK);
}

/// A dump thread that works or sleeps for `ms` milliseconds.
void DumpFor(int ms, bool works) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  ++reports_running;
  std::thread([end, works] {
    while (std::chrono::steady_clock::now() < end) {
      if (!works) std::this_thread::sleep_until(end);
    }
    --reports_running;
  }).detach();
}

/// Random commands, many of them for reports. All are executed in order, across stops and forks.
/// One report command may replace equal ones that directly follow it. Two reports never run at
/// once.
TEST_F(ControlThreadTest, RunsCommandsInOrderAndOneReportAtATime) {
  std::mt19937 random(7);
  std::string sent;
  std::atomic<int> most{0};
  SetOnReport([&] {
    DumpFor(last_parameter == 1 ? 5 : 0, true);
    most = std::max<int>(most, reports_running);
  });
  const auto send = [&](uint64_t word, uint32_t parameter) {
    sent += Letter({word, parameter});
    ASSERT_TRUE(SendControlSignal(getpid(), word, parameter));
  };
  for (int i = 0; i < 400; ++i) {
    send(random() % 4 == 0 ? kCount : kReport, random() % 20 == 0 ? 1 : 0);
    if (i % 50 == 10) {
      ASSERT_TRUE(StopControlThread(kLongMs));
      EXPECT_EQ(RunCommand({kCount, 0}, kLongMs), ESRCH);
      ASSERT_EQ(StartControlThread(), 0);
    } else if (i % 50 == 30) {
      const pid_t child = fork();
      if (child == 0) _exit(reports_running == 0 && RunCommand({kReport, 0}, kLongMs) == 0 ? 7 : 1);
      EXPECT_EQ(ExitCode(child), 7);
    }
  }
  send(kCount, kLastParameter);
  for (int i = 0; i < 10'000 && last_parameter != kLastParameter; ++i) usleep(2000);
  ASSERT_EQ(last_parameter, kLastParameter);
  // A command that is merged with others is complete too.
  ASSERT_EQ(RunCommand({kReport, 1}, kLongMs), 0);
  sent += Letter({kReport, 1});
  for (int i = 0; i < 5; ++i) send(kReport, 2);
  EXPECT_EQ(RunCommand({kReport, 2}, kLongMs), 0);
  ASSERT_TRUE(StopControlThread(kLongMs));

  EXPECT_EQ(most, 1);
  EXPECT_LT(delivered.size(), sent.size());
  const auto stands_for = [](char a, char b) { return a == b && (a & 1) != 0; };
  for (std::string* text : {&sent, &delivered}) {
    text->erase(std::unique(text->begin(), text->end(), stands_for), text->end());
  }
  EXPECT_EQ(delivered, sent);
}

/// The report may wait for a lock that the forking thread holds.
TEST_F(ControlThreadTest, ForkDoesNotWaitForABlockedReport) {
  SetOnReport([] { DumpFor(3000, false); });
  ASSERT_EQ(RunCommand({kReport, 0}, kLongMs), 0);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) _exit(7);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(ExitCode(child), 7);
  while (reports_running != 0) usleep(2000);
}

}  // namespace
}  // namespace host
