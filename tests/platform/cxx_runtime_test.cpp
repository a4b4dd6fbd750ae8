// SPDX-License-Identifier: Apache-2.0
// The replaced functions of the C++ runtime. They replace those of the shared library in this whole
// program; calloc is wrapped at link time.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform_variable.h"

extern "C" void* __real_calloc(std::size_t count, std::size_t size);

namespace {

std::atomic<bool> no_memory{false};
std::atomic<int> blocks{0};  // allocations of the runtime

struct LargeError : std::bad_alloc {
  char text[100] = "large";
};

/// Throws two exceptions, nested, and rethrows the first. Waits in between until `outside` threads
/// have reached the same point.
void ThrowAndCatch(std::atomic<int>& outside) {
  try {
    try {
      throw std::bad_alloc();
    } catch (const std::bad_alloc&) {
      try {
        throw 7;
      } catch (int number) {
        EXPECT_EQ(number, 7);
        for (--outside; outside > 0;) std::this_thread::yield();
      }
      EXPECT_EQ(std::uncaught_exceptions(), 0);
      throw;
    }
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), std::bad_alloc().what());
    EXPECT_TRUE(std::current_exception() != nullptr);
  }
}

/// Runs ThrowAndCatch on `count` threads at the same time.
void OnThreads(int count) {
  std::atomic<int> outside{count};
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back([&outside] { ThrowAndCatch(outside); });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

// Only the runtime and this file call it.
extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (no_memory) return nullptr;
  ++blocks;
  return __real_calloc(count, size);
}

namespace {

TEST(CxxRuntime, ThrowsWithoutMemory) {
  no_memory = true;
  for (int round = 0; round < 4; ++round) OnThreads(20);  // reuses the blocks of earlier rounds
  EXPECT_THROW(std::vector<int>().reserve(std::vector<int>().max_size() + 1), std::bad_alloc);
  no_memory = false;
  EXPECT_EQ(blocks, 0);
}

TEST(CxxRuntime, AllocatesWhenThePoolsAreEmpty) {
  OnThreads(80);
  EXPECT_GT(blocks, 0);
}

TEST(CxxRuntimeDeathTest, LogsWhyItAborts) {
  SetVariable("MEMLEAK_TRACKER_LOG", "stderr");
  EXPECT_DEATH(std::thread([] { throw 1; }).join(), "F MemLeak.Native: .*: uncaught exception");
  EXPECT_DEATH(std::unique_lock<std::mutex>().lock(), "F MemLeak.Native: .* not permitted");
  no_memory = true;
  EXPECT_DEATH(throw LargeError(), "no memory for an exception");
}

}  // namespace
