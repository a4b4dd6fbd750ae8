// SPDX-License-Identifier: Apache-2.0
// Fault-safe operations with real faults. They catch faults only on their own thread.
#include "sigmux/sig_safe_write.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

constexpr std::intptr_t kOld = 0x1111;
constexpr std::intptr_t kNew = 0x2222;

/// A page that contains kOld, with `protection`.
std::intptr_t* NewPage(int protection) {
  void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) abort();
  *static_cast<std::intptr_t*>(page) = kOld;
  if (mprotect(page, 4096, protection) != 0) abort();
  return static_cast<std::intptr_t*>(page);
}

void TakeOverFaults() {
  ASSERT_EQ(sigmux_init(SIGSEGV), 0);
  ASSERT_EQ(sigmux_init(SIGBUS), 0);
}

TEST(SigSafeWrite, WritesOrReportsTheFault) {
  TakeOverFaults();
  std::intptr_t* good = NewPage(PROT_READ | PROT_WRITE);
  std::intptr_t* bad = NewPage(PROT_READ);
  for (int round = 0; round < 3; ++round) {  // each one restores the multiplexer
    errno = 0;
    EXPECT_EQ(sig_safe_write(bad, kNew), 1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(*bad, kOld);
    EXPECT_EQ(sig_safe_write(good, kNew + round), 0);
    EXPECT_EQ(*good, kNew + round);
  }
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGSEGV), 0);
  EXPECT_EQ(sig_safe_op([](void*) { errno = ERANGE; }, nullptr), 0);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(sig_safe_op([](void*) { raise(SIGBUS); }, nullptr), 1);
  EXPECT_EQ(errno, EFAULT);
}

TEST(SigSafeWrite, ThreadsCatchOnlyTheirOwnFaults) {
  TakeOverFaults();
  std::intptr_t* bad = NewPage(PROT_READ);
  std::atomic<int> caught{0};
  const auto write = [&] {
    for (int round = 0; round < 50; ++round) caught += sig_safe_write(bad, kNew);
  };
  std::thread threads[] = {std::thread(write), std::thread(write), std::thread(write)};
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(caught, 150);
  EXPECT_EQ(*bad, kOld);
}

TEST(SigSafeWrite, FaultsOfOtherThreadsEndTheProcess) {
  const auto elsewhere = [] {
    TakeOverFaults();
    sig_safe_op(
        [](void* page) { std::thread([page] { *static_cast<volatile int*>(page) = 1; }).join(); },
        NewPage(PROT_READ));
    _exit(0);
  };
  EXPECT_EXIT(elsewhere(), ::testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
