// The record store: where records go, what they share, when they go away.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>
#include <unordered_map>

#include "platform/fork_policy.h"
#include "tests/records/fake_capture.h"

namespace {

using PointerDataTest = RecordStoreTest;

TEST_F(PointerDataTest, SizeClassesAndStripesChooseTheSet) {
  const std::pair<std::size_t, std::uint64_t> classes[] = {
      {31, 0}, {32, 1}, {39, 1}, {40, 2}, {79, 2}, {80, 3}, {127, 3}, {128, 4}, {SIZE_MAX - 1, 4}};
  for (const auto& [size, size_class] : classes) {
    EXPECT_EQ(&SetOf(0, size), PointerData::sets() + size_class) << size;
  }
  EXPECT_EQ(SelectSet(PointerData::sets(), 0, SIZE_MAX), nullptr);
  const std::pair<std::uint64_t, std::uint64_t> shards[] = {
      {0x1FF, 0}, {0x200, 1}, {0xE00, 7}, {0x1000, 0}};
  for (const auto& [address, shard] : shards) {
    EXPECT_EQ(&SetOf(address, 0), PointerData::sets() + shard * 5) << address;
  }
  // Heap blocks by usable size, with the size asked for and the zygote mark kept; other kinds by
  // the size given.
  zygote_child_ = 0x100;  // only the first byte of a bool would be 0
  CurrentScript() = {{1}, {}, 200};
  data_.Add(At(0x1000), 8);
  EXPECT_EQ(RecordOf(0x1000, 200)->size, 0x80000008U);
  mem_track_type = MMAP;
  data_.Add(At(0x3000), 8);
  EXPECT_NE(RecordOf(0x3000, 8), nullptr);
  // The kind of the moment decides: the heap record of class 4 is looked for in class 0.
  data_.Remove(At(0x1000), 0);
  EXPECT_NE(RecordOf(0x1000, 200), nullptr);
  mem_track_type = NATIVE;
}

TEST_F(PointerDataTest, EqualBacktracesAreSharedAndCounted) {
  Add(0x1000, 64, {11, 12, 13});
  Add(0x2000, 64, {11, 12, 13});
  FrameInfoType* shared = BacktraceOf(0x1000, 64);
  ASSERT_EQ(shared, BacktraceOf(0x2000, 64));
  EXPECT_EQ(shared->references, 2U);
  EXPECT_EQ(shared->hash_index, 2U);
  std::uintptr_t frames[4] = {};
  EXPECT_EQ(PointerData::GetFrames(At(0x1000), frames, 2), 2U);
  EXPECT_EQ(frames[2], 0U);
  EXPECT_EQ(PointerData::GetFrames(At(0x1000), frames, 4), 3U);
  EXPECT_EQ(frames[2], 13U);
  Add(0x3000, 64, {13, 12, 11});  // same pcs, same hash, another order
  EXPECT_NE(BacktraceOf(0x3000, 64), shared);
  PointerSet& set = SetOf(0x1000, 64);
  EXPECT_EQ(set.frames.size(), 2U);
  Remove(0x1000, 64);
  EXPECT_EQ(shared->references, 1U);
  Remove(0x2000, 64);
  EXPECT_EQ(set.frames.size(), 1U);
  // A stack that comes back gets a new index.
  Add(0x1000, 64, {11, 12, 13});
  EXPECT_EQ(BacktraceOf(0x1000, 64)->hash_index, 4U);
  Add(0x4000, 64, {});  // none: index 1
  EXPECT_EQ(BacktraceRef::HashIndex(RecordOf(0x4000, 64)->backtrace), 1U);
  EXPECT_EQ(PointerData::GetFrames(At(0x4000), frames, 4), 0U);
  // An enormous size costs no more than the capture can return.
  SetBacktraceSize(UINT32_MAX);
  current_backtrace_type = kBacktraceUnwinder;
  Add(0x5000, 64, std::vector<std::uint64_t>(5000, 9));
  current_backtrace_type = kBacktraceFramePointer;
  SetBacktraceSize(kDefaultBacktraceSize);
  EXPECT_EQ(BacktraceOf(0x5000, 64)->num_frames, 1024U);
}

TEST_F(PointerDataTest, AnAddressAddedTwiceKeepsTheFirstBacktraceAlive) {
  Add(0x1000, 64, {1, 2});
  FrameInfoType* first = BacktraceOf(0x1000, 64);
  RecordOf(0x1000, 64)->time = 100;
  Add(0x1000, 64, {1, 2});
  EXPECT_EQ(first->references, 2U);
  EXPECT_EQ(RecordOf(0x1000, 64)->time, 100) << "the earlier time is kept";
  Add(0x1000, 65, {3, 4});
  EXPECT_EQ(RecordOf(0x1000, 64)->size, 65U);
  EXPECT_EQ(first->references, 2U);
  Remove(0x1000, 64);
  EXPECT_EQ(TotalRecords(), 0U);
  Add(0x1000, 64, {1, 2});
  EXPECT_EQ(RecordOf(0x1000, 64)->time, 100) << "the backtrace still had a time of this address";
  EXPECT_TRUE(SetOf(0x1000, 64).kept_times.empty());
}

TEST_F(PointerDataTest, ReEntryAndUnknownAddressesAreSilent) {
  record_key.Set(this);
  Add(0x1000, 64, {1});
  EXPECT_EQ(TotalRecords(), 0U);
  record_key.Set(nullptr);
  Add(0x1000, 64, {1});
  EXPECT_EQ(record_key.Get(), nullptr);
  record_key.Set(this);
  Remove(0x1000, 64);
  EXPECT_EQ(TotalRecords(), 1U);
  record_key.Set(nullptr);
  Remove(0x2000, 64);
  Remove(0x1000, 32);  // another class
  control_->ConfigHookStatus(false, false);
  Remove(0x1000, 64);  // nothing was ever started
  EXPECT_EQ(TotalRecords(), 1U);
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(PointerDataTest, ClearingEmptiesEverythingAndRestartsIndexes) {
  for (std::uint64_t i = 0; i < 2000; ++i) Add(i * 16, 16 + i % 200, {i, i + 1});
  // A set whose lock is held is emptied by its next holder, and counts as empty at once.
  PointerSet& busy = SetOf(0x1000, 64);
  busy.pointer_mutex.lock();
  busy.frame_mutex.lock();
  data_.Initialize();
  EXPECT_EQ(TotalRecords(), 0U);
  busy.frame_mutex.unlock();
  busy.pointer_mutex.unlock();
  Remove(0x1E0, 46);
  Add(0x1000, 64, {5});
  EXPECT_EQ(BacktraceOf(0x1000, 64)->hash_index, 2U);
  EXPECT_EQ(TotalRecords(), 1U);
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(PointerDataTest, APauseEndsWithTheFirstEmptySet) {
  const auto flags = [&] {
    return std::pair(control_->GetHookEverStarted(), control_->GetPltHookEverStarted());
  };
  constexpr std::size_t kClassSizes[] = {16, 32, 40, 80, 128};
  for (std::uint64_t shard = 0; shard < 8; ++shard) {
    for (const std::size_t size : kClassSizes) {
      for (std::uint64_t n = 0; n < 2; ++n) Add(shard * 512 + size + n, size, {1});
    }
  }
  control_->ConfigHookStatus(false, true);
  control_->ConfigPltHookStatus(false, true);
  Remove(0 * 512 + 16, 16);
  EXPECT_EQ(flags(), std::pair(true, true)) << "no set is empty yet";
  Remove(0 * 512 + 16 + 1, 16);
  EXPECT_EQ(flags(), std::pair(false, false));
  EXPECT_GT(TotalRecords(), 0U) << "one empty set is enough";
}

TEST_F(PointerDataTest, JavaNativeRecordsStayUntilCleared) {
  unwindstack::FrameData frame;
  frame.rel_pc = 0x42;
  CurrentScript() = {{1, 2}, {frame, frame}, 64};
  data_.Add(At(0x1000), 64);
  data_.Add(At(0x2000), 64);
  PointerSet& set = SetOf(0x1000, 64);
  ASSERT_EQ(set.unwind_frames.size(), 1U);
  EXPECT_EQ(set.unwind_frames[2].references, 2U);
  data_.Remove(At(0x1000), 0);
  EXPECT_EQ(set.java_pointers.at(0x1000).size, 64U);
  EXPECT_EQ(set.unwind_frames[2].references, 2U);
  data_.Initialize();
  set.SyncJavaTables();
  EXPECT_TRUE(set.java_pointers.empty());
  EXPECT_TRUE(set.unwind_key_to_index.empty());
}

TEST_F(PointerDataTest, ForkLeavesTheLocksFreeOnBothSides) {
  const auto all_free = [] {
    for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) {
      PointerSet& set = PointerData::sets()[i];
      for (SetMutex* mutex : {&set.spare_mutex, &set.pointer_mutex, &set.frame_mutex}) {
        if (!mutex->try_lock()) return false;
        mutex->unlock();
      }
    }
    return true;
  };
  Add(0x1000, 64, {1, 2});
  PointerSet& set = SetOf(0x1000, 64);
  // Others hold these three at the fork; whether the child frees them is the platform's policy.
  SetMutex* const foreign[] = {&InitialiseLock(), &set.java_pointer_mutex, &set.unwind_mutex};
  for (SetMutex* mutex : foreign) mutex->lock();
  PointerData::PrepareFork();
  EXPECT_FALSE(all_free());
  const pid_t child = fork();
  if (child == 0) {
    PointerData::PostForkChild();
    std::uintptr_t frames[2];
    bool good = all_free() && PointerData::GetFrames(At(0x1000), frames, 2) == 2;
    for (SetMutex* mutex : foreign) {
      good = good && mutex->try_lock() == platform::ForkedChildFreesLocks();
    }
    _exit(good ? 0 : 1);
  }
  PointerData::PostForkParent();
  for (SetMutex* mutex : foreign) mutex->unlock();
  EXPECT_TRUE(all_free());
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

// Against a plain model: the same random adds and removes, over sizes and stacks that collide.
TEST_F(PointerDataTest, MatchesAModelUnderChurn) {
  std::mt19937_64 random(1);
  std::unordered_map<std::uint64_t, std::pair<std::size_t, std::uint64_t>> model;
  for (int step = 0; step < 60000; ++step) {
    const std::uint64_t address = 0x10000 + random() % 3000 * 16;
    const auto found = model.find(address);
    if (found != model.end()) {
      const auto [size, stack] = found->second;
      ASSERT_EQ(BacktraceOf(address, size)->pcs()[0], stack);
      Remove(address, size);
      model.erase(found);
    } else {
      const std::size_t size = 1 + random() % 200;
      const std::uint64_t stack = random() % 64;
      // The five pcs cancel out: all stacks have one hash.
      Add(address, size, {stack, stack, 7, 8, 9, stack});
      model[address] = {size, stack};
    }
  }
  EXPECT_EQ(TotalRecords(), model.size());
  std::uint64_t references = 0;
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) {
    PointerData::sets()[i].frames.ForEach(
        [&](const FrameInfoType* backtrace) { references += backtrace->references; });
  }
  EXPECT_EQ(references, model.size());
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
        data_.Add(At(address), 16);
        data_.Remove(At(address), 0);
        data_.Add(At(address), 16);
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    data_.Initialize();
    std::vector<RecordStruct> list;
    std::size_t out[4] = {};
    PointerData::GetInfo(nullptr, &out[0], &out[1], &out[2], &out[3], &list);
    for (const RecordStruct& record : list) {
      ASSERT_EQ(record.frames.size(), 3U);
      ASSERT_EQ(record.frames[1], 1U);
    }
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  data_.Initialize();
  EXPECT_EQ(TotalRecords(), 0U);
}

}  // namespace
