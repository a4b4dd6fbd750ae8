// The exported entries against stand-ins: what they forward, record and refuse. What a lack of
// memory does is in memory_shortage.cpp.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "fakes.h"
#include "tracker/DebugData.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/control/MemTrackControl.h"

namespace {

constexpr std::size_t kTwoGiB = std::size_t{1} << 31;
constexpr int kUntouchedErrno = 77;

void* PosixMemalign(std::size_t alignment, std::size_t size, int expected) {
  void* result = fake::old_block;
  EXPECT_EQ(track_posix_memalign(&result, alignment, size), expected);
  return result;
}

bool Start() {
  return track_initialize(&fake::Dispatch(), fake::ZygoteFlag(), "");
}

class EntriesTest : public testing::Test {
 protected:
  void SetUp() override {
    fake::Reset();
    ASSERT_TRUE(Start());
    Control()->ConfigHookStatus(true, true);
    fake::Reset();
    errno = kUntouchedErrno;
  }
  void TearDown() override {
    EXPECT_TRUE(Control()->ThreadEnabled()) << "an entry left its mark";
    track_finalize();
  }
  static MemTrackControl* Control() { return MemTrackControl::GetInstance(); }
};

struct Call {
  const char* text;
  std::function<void*()> run;
  void* result;
  int error;
  const char* events;
};

/// `mark` is appended to the expected events.
void Check(const std::vector<Call>& calls, const std::string& mark = "") {
  for (const Call& call : calls) {
    SCOPED_TRACE(call.text);
    errno = kUntouchedErrno;
    EXPECT_EQ(call.run(), call.result);
    EXPECT_EQ(errno, call.error == 0 ? kUntouchedErrno : call.error);
    EXPECT_EQ(fake::TakeEvents(), call.events + mark);
  }
}

#define CALL(expression) #expression, [] { return expression; }

TEST_F(EntriesTest, RecordWhatWasReallyAllocatedWhileMarked) {
  using namespace fake;
  Check({
      {CALL(track_malloc(5)), new_block, 0, "malloc(5)* Add(new,5)*"},
      {CALL(track_malloc(0)), new_block, 0, "malloc(1)* Add(new,1)*"},
      {CALL(track_malloc(kTwoGiB - 1)), new_block, 0, "malloc(2147483647)* Add(new,2147483647)*"},
      {CALL(track_malloc(kTwoGiB)), nullptr, ENOMEM, ""},
      {CALL(track_calloc(3, 8)), new_block, 0, "calloc(1,24)* Add(new,24)*"},
      {CALL(track_calloc(0, 8)), new_block, 0, "calloc(1,1)* Add(new,1)*"},
      {CALL(track_calloc(SIZE_MAX / 2, 3)), nullptr, ENOMEM, ""},
      {CALL(track_calloc(1 << 16, 1 << 15)), nullptr, ENOMEM, ""},
      {CALL(track_memalign(64, 0)), new_block, 0, "memalign(64,1)* Add(new,1)*"},
      {CALL(track_aligned_alloc(16, 9)), new_block, 0, "memalign(16,9)* Add(new,9)*"},
      {CALL(track_aligned_alloc(24, 9)), nullptr, EINVAL, ""},
      {CALL(PosixMemalign(2, 7, 0)), new_block, 0, "memalign(2,7)* Add(new,7)*"},
      {CALL(PosixMemalign(24, 7, EINVAL)), old_block, 0, ""},
      {CALL(PosixMemalign(8, kTwoGiB, ENOMEM)), nullptr, 0, ""},
      {CALL(track_realloc(nullptr, 0)), new_block, 0, "malloc(1)* Add(new,1)*"},
      {CALL(track_realloc(nullptr, kTwoGiB)), nullptr, ENOMEM, ""},
      {CALL(track_realloc(old_block, 0)), nullptr, 0, "Remove(old,0)* free(old)*"},
      {CALL(track_realloc(old_block, kTwoGiB)), nullptr, ENOMEM, ""},
      {CALL(track_realloc(old_block, 30)), new_block, 0,
       "Remove(old,0)* realloc(old,30)* Add(new,30)*"},
      {CALL((track_free(old_block), nullptr)), nullptr, 0, "Remove(old,0)* free(old)*"},
      {CALL((track_free(nullptr), nullptr)), nullptr, 0, "Remove(null,0)* free(null)*"},
  });
}

/// The same calls must reach the C library as they are while recording is off and while the thread
/// is marked; only frees differ.
std::vector<Call> Forwards(const char* free_events) {
  using namespace fake;
  return {
      {CALL(track_malloc(0)), new_block, 0, "malloc(0)"},
      {CALL(track_malloc(kTwoGiB)), new_block, 0, "malloc(2147483648)"},
      {CALL(track_calloc(3, 8)), new_block, 0, "calloc(3,8)"},
      {CALL(track_memalign(3, 0)), new_block, 0, "memalign(3,0)"},
      {CALL(track_aligned_alloc(24, 9)), new_block, 0, "aligned_alloc(24,9)"},
      {CALL(PosixMemalign(24, 9, 5)), new_block, 0, "posix_memalign(24,9)"},
      {CALL(track_realloc(old_block, 0)), new_block, 0, "realloc(old,0)"},
      {CALL((track_free(old_block), nullptr)), nullptr, 0, free_events},
  };
}

TEST_F(EntriesTest, ForwardUnchangedWhileNotRecording) {
  Control()->ConfigHookStatus(false, false);
  Check(Forwards("free(old)"));
  Control()->ConfigHookStatus(false, true);
  Check(Forwards("Remove(old,0) free(old)"));
}

TEST_F(EntriesTest, AMarkedThreadIsNotRecordedAndStaysMarked) {
  Control()->DisableThread();
  Check(Forwards("Remove(old,0)* free(old)"), "*");
  EXPECT_EQ(track_malloc_backtrace(fake::old_block, nullptr, 4), 0U);
  EXPECT_EQ(track_malloc_info(1, nullptr), 101);
  EXPECT_FALSE(Control()->ThreadEnabled());
  Control()->EnableThread();
}

TEST_F(EntriesTest, TheTrackersOwnAllocationsAreNotRecorded) {
  fake::Now().in_add = [] {
    fake::Now().in_add = nullptr;
    track_free(track_malloc(9));
  };
  EXPECT_EQ(track_malloc(5), fake::new_block);
  EXPECT_EQ(fake::TakeEvents(), "malloc(5)* Add(new,5)* malloc(9)* Remove(new,0)* free(new)*");
  // Another thread records meanwhile: the mark is the thread's own.
  Control()->DisableThread();
  std::thread([] { track_malloc(6); }).join();
  EXPECT_EQ(fake::TakeEvents(), "malloc(6)* Add(new,6)*");
  Control()->EnableThread();
}

TEST_F(EntriesTest, Queries) {
  EXPECT_EQ(track_malloc_usable_size(fake::old_block), 48U);
  EXPECT_EQ(track_malloc_usable_size(nullptr), 48U);
  EXPECT_EQ(fake::TakeEvents(), "usable(old)* usable(null)");
  EXPECT_EQ(track_malloc_info(1, nullptr), 0) << "silent while recording";
  EXPECT_EQ(track_malloc_backtrace(fake::old_block, nullptr, 4), 3U);
  EXPECT_EQ(track_malloc_backtrace(nullptr, nullptr, 4), 0U);
}

TEST(StartAndStop, ClearsAndSwitchesWhileOthersAllocate) {
  ASSERT_TRUE(Start());
  std::atomic<bool> done{false};
  std::thread threads[3];
  for (std::thread& thread : threads) {
    thread = std::thread([&done] {
      while (!done) track_free(track_realloc(track_calloc(1, 8), 9));
    });
  }
  for (int i = 0; i < 300; ++i) {
    MemTrackControl::GetInstance()->ConfigHookStatus(i % 2 == 0, i % 3 != 0);
    EXPECT_TRUE(DebugData::Initialize(DebugData::GetInstance()));
    fake::TakeEvents();
  }
  track_finalize();  // threads are still inside
  done = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
