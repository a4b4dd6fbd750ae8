// The gate between fork and unwinding when two threads fork at once.
#include "platform/standin/unwind_gate.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

std::atomic<pthread_t> g_slow_thread{};
std::atomic<bool> g_slow_is_in{false};
std::atomic<bool> g_let_go{false};

/// Keeps one thread inside fork, behind the gate's own handler.
void HoldSlowThread() {
  if (!pthread_equal(pthread_self(), g_slow_thread)) return;
  g_slow_is_in = true;
  while (!g_let_go) usleep(1000);
}

void ForkAndWait() {
  const pid_t child = fork();
  if (child == 0) {
    // Nobody else forks here: the pass is immediate.
    const platform::UnwindPass pass;
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

bool PassWaits() {
  const auto start = std::chrono::steady_clock::now();
  const platform::UnwindPass pass;
  return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(25);
}

TEST(UnwindGate, StaysShutUntilTheLastForkIsOver) {
  // Prepare handlers run last registered first.
  pthread_atfork(HoldSlowThread, nullptr, nullptr);
  platform::InstallUnwindGate();
  EXPECT_FALSE(PassWaits());
  std::thread slow([] {
    g_slow_thread = pthread_self();
    ForkAndWait();
  });
  while (!g_slow_is_in) usleep(1000);
  EXPECT_TRUE(PassWaits());
  ForkAndWait();
  EXPECT_TRUE(PassWaits());
  g_let_go = true;
  slow.join();
  EXPECT_FALSE(PassWaits());
}

}  // namespace
