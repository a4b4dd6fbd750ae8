// The record store's locks, and what an export leaves out. See store_model_test.cpp for the rest.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <random>
#include <thread>

#include "platform/fork_policy.h"
#include "records/report_text.h"
#include "tests/records/fake_capture.h"

namespace {

class PointerDataTest : public RecordStoreTest {
 protected:
  void Export() {
    list_.clear();
    PointerData::GetInfo(nullptr, &overall_, &info_, &total_, &frames_, &list_);
  }
  std::size_t overall_ = 0, info_ = 0, total_ = 0, frames_ = 0;
  std::vector<RecordStruct> list_;
};

TEST_F(PointerDataTest, AForkedChildFindsTheLocksFree) {
  PointerSet& set = SetOf(0x1000, 64);
  const auto is_free = [](SetMutex& mutex) { return mutex.try_lock() && (mutex.unlock(), true); };
  const auto frees_own = [&set, is_free] {
    return is_free(set.spare_mutex) && is_free(set.pointer_mutex) && is_free(set.frame_mutex);
  };
  // Others hold these three at the fork; whether the child frees them is the platform's policy.
  SetMutex* const foreign[] = {&InitialiseLock(), &set.java_pointer_mutex, &set.unwind_mutex};
  for (SetMutex* mutex : foreign) mutex->lock();
  PointerData::PrepareFork();
  EXPECT_FALSE(is_free(set.pointer_mutex));
  const pid_t child = fork();
  if (child == 0) {
    PointerData::PostForkChild();
    bool good = frees_own();
    for (SetMutex* mutex : foreign) {
      good = good && is_free(*mutex) == platform::ForkedChildFreesLocks();
    }
    _exit(good ? 0 : 1);
  }
  PointerData::PostForkParent();
  for (SetMutex* mutex : foreign) mutex->unlock();
  EXPECT_TRUE(frees_own());
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(PointerDataTest, AReaderHoldsOffWritersWhoCannotBeCancelledMeanwhile) {
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

TEST_F(PointerDataTest, ClearStormWhileThreadsAllocate) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (std::uint64_t t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937_64 random(t);
      while (!stop) {
        const std::uint64_t address = (random() % 400 * 2 + t) * 16;
        CurrentScript() = {{random() % 8, 1, 2}, {}, 16 + address % 150};
        if (address % 3 == 0) CurrentScript().java_frames.resize(1 + random() % 3);
        data_.Add(At(address), 16);
        data_.Remove(At(address), 0);
        data_.Add(At(address), 16);
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    data_.Initialize();
    Export();
    for (const RecordStruct& record : list_) {
      ASSERT_EQ(record.frames.size(), 3U);
      ASSERT_EQ(record.frames[1], 1U);
    }
    const std::lock_guard<SetMutex> no_clear(InitialiseLock());
    ReportText text;
    PointerData::ReportJavaNativeNodes(text);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  data_.Initialize();
  EXPECT_EQ(TotalRecords(), 0U);
}

TEST_F(PointerDataTest, RefusesMoreThanSixtyThousandGroups) {
  for (std::uint64_t i = 0; i < PointerData::kMaxGroups; ++i) Add(i * 16, 48, {i, 1});
  Export();
  EXPECT_EQ(list_.size(), PointerData::kMaxGroups);
  Add(0x10000000, 48, {PointerData::kMaxGroups, 1});
  Export();
  EXPECT_TRUE(list_.empty());
  EXPECT_EQ(LogLines().back(), "6 MemLeak.Native: list size err or listout null 60001, ignore");
}

TEST_F(PointerDataTest, BacktraceSizeProperty) {
  const std::pair<const char*, std::uint32_t> cases[] = {{"64", 64},
                                                         {"12a", 64},
                                                         {"", 64},
                                                         {"-1", 64},
                                                         {"2147483648", 64},
                                                         {"007", 7},
                                                         {"2147483647", 2147483647}};
  for (const auto& [value, expected] : cases) {
    fake_property = value;
    EXPECT_EQ(PointerData::GetMaxBacktraceNum(), expected) << value;
  }
  SetBacktraceSize(kDefaultBacktraceSize);
}

}  // namespace
