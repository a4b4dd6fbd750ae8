// Start-up, shut-down, clearing, fork handlers and callback slots.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "fakes.h"
#include "platform/thread_keys.h"
#include "tracker/DebugData.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/MemTrackControl.h"
#include "tracker/SignalControl.h"

namespace {

bool Start() {
  return track_initialize(&fake::Dispatch(), fake::ZygoteFlag(), "options");
}

/// Runs `work` with only `left` thread keys to be had. Returns how many there were.
std::size_t WithKeys(std::size_t left, const std::function<void()>& work) {
  std::vector<pthread_key_t> keys;
  pthread_key_t key = 0;
  while (pthread_key_create(&key, nullptr) == 0) keys.push_back(key);
  const std::size_t all = keys.size();
  for (; left > 0; --left, keys.pop_back()) pthread_key_delete(keys.back());
  work();
  for (const pthread_key_t each : keys) pthread_key_delete(each);
  return all;
}

TEST(LifecycleTest, StartAndStopAndStartAgain) {
  fake::Reset();
  EXPECT_FALSE(track_initialize(nullptr, fake::ZygoteFlag(), ""));
  EXPECT_FALSE(track_initialize(&fake::Dispatch(), nullptr, ""));

  struct sigaction before = {};
  before.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(44, &before, nullptr), 0);
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(fake::TakeEvents(), "Initialize() BacktraceStartup()");
    MemTrackControl* control = MemTrackControl::GetInstance();
    EXPECT_EQ(MemTrackControl::GetMallocZygoteChild(), fake::ZygoteFlag());
    EXPECT_FALSE(control->GetHookStart() || control->GetHookEverStarted());
    EXPECT_TRUE(control->ThreadEnabled());
    struct sigaction installed = {};
    ASSERT_EQ(sigaction(44, nullptr, &installed), 0);
    EXPECT_EQ(installed.sa_sigaction, TrackSigaction);
    EXPECT_EQ(installed.sa_flags & (SA_SIGINFO | SA_RESTART | SA_ONSTACK | SA_NODEFER), SA_SIGINFO);
    EXPECT_EQ(sigismember(&installed.sa_mask, 44), 1);

    control->ConfigHookStatus(true, true);
    track_finalize();
    EXPECT_FALSE(control->GetHookStart() || control->GetHookEverStarted());
    struct sigaction restored = {};
    ASSERT_EQ(sigaction(44, nullptr, &restored), 0);
    EXPECT_EQ(restored.sa_handler, SIG_IGN);
    EXPECT_EQ(DebugData::GetInstance()->pointer(), nullptr);
    // Entries keep working, and nothing records, even when the switch is thrown once more.
    control->ConfigHookStatus(true, true);
    track_free(track_realloc(track_malloc(5), 6));
    std::thread([] { track_free(track_malloc(7)); }).join();
    track_malloc_disable();
    track_malloc_enable();
    EXPECT_EQ(fake::TakeEvents(),
              "malloc(5)* realloc(new,6)* free(new)* malloc(7)* free(new)* disable()* enable()*");
  }
  EXPECT_TRUE(fake::TakeLog().empty());
}

TEST(LifecycleTest, AFailedStartLeavesNothingBehind) {
  fake::Reset();
  // With three keys left the last is one whose use allocates: an entry would call itself forever.
  const bool keys_allocate = !platform::ThreadKeyNeverAllocates(1000);
  for (std::size_t left = 0; left < (keys_allocate ? 4U : 3U); ++left) {
    WithKeys(left, [] { EXPECT_FALSE(Start()); });
    EXPECT_EQ(MemTrackControl::GetInstance(), nullptr);
    const char* line = left < 3 ? "E pthread_key_create failed: Resource" : "E thread key ";
    EXPECT_EQ(fake::TakeLog().at(0).rfind(line, 0), 0U);
  }
  const std::size_t keys = WithKeys(0, [] {});
  fake::Now().store_initialize_fails = true;
  EXPECT_FALSE(Start());
  EXPECT_EQ(MemTrackControl::GetInstance(), nullptr);
  EXPECT_EQ(WithKeys(0, [] {}), keys);

  fake::Reset();
  EXPECT_TRUE(Start());
  track_finalize();
}

TEST(LifecycleTest, ForkReachesTheStore) {
  fake::Reset();
  ASSERT_TRUE(Start());
  track_finalize();
  ASSERT_TRUE(Start());  // a second start must not register the handlers a second time
  fake::TakeEvents();
  const pid_t child = fork();
  if (child == 0) _exit(fake::TakeEvents() == "PrepareFork() PostForkChild()" ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(fake::TakeEvents(), "PrepareFork() PostForkParent()");
  track_finalize();
  const pid_t second = fork();
  if (second == 0) _exit(0);
  ASSERT_EQ(waitpid(second, &status, 0), second);
  EXPECT_EQ(fake::TakeEvents(), "");
}

TEST(LifecycleTest, ClearsAndSwitchesWhileOthersAllocate) {
  fake::Reset();
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
