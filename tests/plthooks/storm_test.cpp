// Hooks that come and go while threads, signal handlers and forked children call.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

#include "plthooks/plthooks.h"
#include "tests/plthooks/fixtures/calls.h"
#include "tests/plthooks/support.h"

namespace lumora::plthooks {
namespace {

std::atomic<long> hooked_calls{0};

template <int kNumber>
int Forward(int value) {
  ++hooked_calls;
  return Previous(Forward<kNumber>)(value);
}

class Storm : public testing::Test {
 protected:
  bool Hook(int (*hook)(int)) {
    return hook_plt_method(library_.name(), "calls_target", reinterpret_cast<void*>(hook)) == 0;
  }
  bool Unhook(int (*hook)(int)) {
    return unhook_plt_method(library_.name(), "calls_target", reinterpret_cast<void*>(hook)) == 0;
  }

  /// Two hooks come and go in turn, `rounds` times.
  void ComeAndGo(int rounds) {
    for (int round = 0; round < rounds; ++round) {
      EXPECT_TRUE(Hook(Forward<1>));
      EXPECT_TRUE(Hook(Forward<2>));
      EXPECT_TRUE(Unhook(Forward<1>));
      EXPECT_TRUE(Unhook(Forward<2>));
    }
  }

  /// Calls as long as told to; every answer must be the function's.
  void CallUntilStopped() {
    for (int value = 0; !stop_.load(std::memory_order_relaxed); ++value) {
      if (call_(value) != value + 1) ++wrong_;
    }
  }

  Library library_{CALLS_FULL};
  decltype(&calls_call) call_ = library_.find<decltype(calls_call)>("calls_call");
  std::atomic<bool> stop_{false};
  std::atomic<int> wrong_{0};
};

TEST_F(Storm, ThreadsCallWhileHooksComeAndGo) {
  void* const original = *library_.slot("calls_target");
  std::thread first([this] { CallUntilStopped(); });
  std::thread second([this] { CallUntilStopped(); });
  do {
    ComeAndGo(100);
  } while (hooked_calls < 1000);
  stop_ = true;
  first.join();
  second.join();
  EXPECT_EQ(wrong_, 0);
  EXPECT_EQ(*library_.slot("calls_target"), original);
}

TEST_F(Storm, TwoThreadsHookTheSameSlot) {
  const auto work = [this](int (*hook)(int)) {
    for (int round = 0; round < 500; ++round) {
      EXPECT_TRUE(Hook(hook));
      EXPECT_TRUE(Unhook(hook));
    }
  };
  std::thread first(work, Forward<1>);
  std::thread second(work, Forward<2>);
  first.join();
  second.join();
  EXPECT_EQ(call_(1), 2);
}

std::atomic<int> inside{0};
std::atomic<bool> leave{false};

int Wait(int value) {
  ++inside;
  while (!leave) std::this_thread::yield();
  return Previous(Wait)(value);
}

TEST_F(Storm, AHookIsTakenOffWhileAThreadIsInIt) {
  ASSERT_TRUE(Hook(Wait));
  int answer = 0;
  std::thread caller([&] {
    errno = EDOM;
    answer = call_(1);
    EXPECT_EQ(errno, EDOM);
  });
  while (inside == 0) std::this_thread::yield();
  EXPECT_TRUE(Unhook(Wait));
  EXPECT_EQ(call_(5), 6);
  leave = true;
  caller.join();
  EXPECT_EQ(answer, 2);
  EXPECT_EQ(inside, 1);
}

int (*signal_call)(int);
std::atomic<int> signal_calls{0};
std::atomic<int> signal_errors{0};

void CallInSignal(int /*signal*/) {
  const int saved_errno = errno;
  if (signal_call(10) != 11 || signal_call(20) != 21) ++signal_errors;
  if (errno != saved_errno) ++signal_errors;
  ++signal_calls;
}

TEST_F(Storm, SignalHandlersMakeHookedCalls) {
  ASSERT_TRUE(Hook(Forward<1>));
  signal_call = call_;
  struct sigaction action = {};
  action.sa_handler = CallInSignal;
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  // Also a thread's first call, which sets up its hook stack, may be interrupted.
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> ready{false};
    std::atomic<int> wrong{0};
    const int goal = signal_calls + 50;
    std::thread caller([&] {
      ready = true;
      for (int value = 0; signal_calls < goal; ++value) {
        if (call_(value) != value + 1) ++wrong;
      }
    });
    while (!ready) std::this_thread::yield();
    while (signal_calls < goal) {
      pthread_kill(caller.native_handle(), SIGUSR1);
      usleep(50);
    }
    caller.join();
    EXPECT_EQ(wrong, 0);
  }
  EXPECT_EQ(signal_errors, 0);
}

TEST_F(Storm, ForkedChildrenCallWhileHooksComeAndGo) {
  std::thread hooker([this] {
    while (!stop_) ComeAndGo(1);
  });
  for (int round = 0; round < 40; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      for (int value = 0; value < 100; ++value) {
        if (call_(value) != value + 1) _exit(1);
      }
      _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  stop_ = true;
  hooker.join();
}

}  // namespace
}  // namespace lumora::plthooks
