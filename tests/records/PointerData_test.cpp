// SPDX-License-Identifier: Apache-2.0
// The record store under threads: clears, reports, sweeps, pauses and forks while others allocate.
// See store_model_test.cpp for the rest.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>

#include "platform/policies.h"
#include "records/record_store.h"
#include "records/report_text.h"
#include "tests/records/fake_capture.h"

namespace {

class PointerDataTest : public RecordStoreTest {
 protected:
  static bool IsFree(SetMutex& mutex) { return mutex.try_lock() && (mutex.unlock(), true); }
  void Export() {
    list_.clear();
    PointerData::GetInfo(nullptr, &overall_, &info_, &total_, &frames_, &list_);
  }
  std::size_t overall_ = 0, info_ = 0, total_ = 0, frames_ = 0;
  std::vector<RecordStruct> list_;

  /// Threads that add and remove blocks of 100 bytes until this object is destroyed. Each thread
  /// leaves one block at each of its addresses that are 5 modulo 7. Stacks have 3 pcs, of which the
  /// middle one is 1. There are `stacks` different stacks. If these are few, some blocks have
  /// Java-native frames too.
  class Churn {
   public:
    Churn(PointerData& data, unsigned threads, std::uint64_t stacks) {
      for (std::uint64_t t = 0; t < threads; ++t) {
        threads_.emplace_back([this, &data, t, stacks] {
          std::mt19937_64 random(t);
          while (!stop_) {
            const std::uint64_t n = random() % 2000;
            // The blocks of the two threads alternate.
            const void* block = At((n * 2 + t) * 16);
            CurrentScript() = {{random() % stacks, 1, 2}, {}, 16 + n % 150};
            if (n % 3 == 0 && stacks < 10) CurrentScript().java_frames.resize(1 + random() % 3);
            data.Add(block, 100);
            if (n % 7 != 5) data.Remove(block, 0);
          }
        });
      }
    }
    ~Churn() {
      stop_ = true;
      for (std::thread& thread : threads_) thread.join();
    }

   private:
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
  };
};

TEST_F(PointerDataTest, ClearsReportsAndPausesWhileThreadsAllocate) {
  {
    const Churn churn(data_, 2, 8);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
      if (i % 3 == 0) data_.Initialize();
      if (i % 5 == 0) control_->ConfigHookStatus(false, true);
      Export();
      for (const RecordStruct& record : list_) {
        ASSERT_EQ(record.frames.size(), 3U);
        ASSERT_EQ(record.frames[1], 1U);
      }
      std::uintptr_t frames[4] = {};
      const std::size_t count = PointerData::GetFrames(At(5 * 32), frames, 4);
      ASSERT_TRUE(count == 0 || (count == 3 && frames[1] == 1)) << count;
      control_->ConfigHookStatus(true, true);
      const std::lock_guard<SetMutex> no_clear(InitialiseLock());
      ReportText text;
      PointerData::ReportJavaNativeNodes(text);
    }
  }
  data_.Initialize();
  Export();
  EXPECT_TRUE(list_.empty());
}

TEST_F(PointerDataTest, SweepsKeepBacktracesOfRecords) {
  Add(0x7000000, 64, {77, 78});
  {
    // Every stack is new, so the table is swept again and again.
    const Churn churn(data_, 2, std::uint64_t{1} << 40);
    const std::uint32_t first = record_store::backtraces.epoch();
    CurrentScript().usable_size = 16 + 5;
    std::uintptr_t frame;
    while (record_store::backtraces.epoch() < first + 20 ||
           PointerData::GetFrames(At(5 * 32), &frame, 1) == 0) {
      usleep(1000);
    }
  }
  std::uintptr_t frames[4] = {};
  ASSERT_EQ(PointerData::GetFrames(At(5 * 32), frames, 4), 3U);
  EXPECT_EQ(frames[1], 1U);
  CurrentScript().usable_size = 64;
  ASSERT_EQ(PointerData::GetFrames(At(0x7000000), frames, 4), 2U);
  EXPECT_EQ(frames[1], 78U);
}

TEST_F(PointerDataTest, ForksLeaveAWorkingStoreOnBothSides) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's allocator does not unlock itself in a forked child";
#endif
  Add(0x7000000, 64, {77, 78});
  // Other threads hold these three at the fork. The platform's policy decides whether the child
  // frees them.
  PointerSet& set = PointerSet::All()[0];
  SetMutex* const foreign[] = {&InitialiseLock(), &set.java_pointer_mutex, &set.unwind_mutex};
  for (SetMutex* mutex : foreign) mutex->lock();
  const Churn churn(data_, 2, 5000);
  for (int i = 0; i < 30; ++i) {
    PointerData::PrepareFork();
    const pid_t child = fork();
    if (child == 0) {
      alarm(10);
      // Locks nothing: this thread holds the locks.
      Add(0x7000040, 64, {79});
      Remove(0x7000000, 64);
      PointerData::PostForkChild();
      std::uintptr_t frames[2];
      bool works = PointerData::GetFrames(At(0x7000000), frames, 2) == 0 &&
                   PointerData::GetFrames(At(0x7000040), frames, 2) == 1 && frames[0] == 79;
      Export();  // takes all locks
      works = works && IsFree(set.spare_mutex) && !list_.empty();
      for (SetMutex* mutex : foreign) {
        works = works && IsFree(*mutex) == platform::ForkedChildFreesLocks();
      }
      _exit(works ? 0 : 1);
    }
    Add(0x7000080 + static_cast<std::uint64_t>(i) * 16, 64, {80});
    PointerData::PostForkParent();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
  }
  for (SetMutex* mutex : foreign) mutex->unlock();
}

TEST_F(PointerDataTest, ReaderDelaysWritersAndTheirCancellation) {
  std::atomic<bool> added{false};
  std::thread adder;
  {
    const FrameInfoListWithLock locks;
    adder = std::thread([&] {
      CurrentScript() = {{1}, {}, 64};
      data_.Add(At(0x1000), 64);
      added = true;
    });
    usleep(20000);
    pthread_cancel(adder.native_handle());
    usleep(20000);
    EXPECT_FALSE(added);
  }
  adder.join();
  EXPECT_TRUE(added);
}

}  // namespace
