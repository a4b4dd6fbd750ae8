// Hooks that come and go while threads, signal handlers and forked children call.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "tests/plthooks/support.h"

namespace {

std::atomic<long> hooked_calls{0};

template <int kNumber>
int Forward(int value) {
  ++hooked_calls;
  return Previous(Forward<kNumber>)(value);
}

class Storm : public testing::Test {
 protected:
  /// Puts `hook` on and takes it off.
  void ComeAndGo(int (*hook)(int)) {
    EXPECT_EQ(library_.Hook(hook), 0);
    EXPECT_EQ(library_.Unhook(hook), 0);
  }

  /// Calls `until` it is enough; every answer must be the function's.
  template <typename Condition>
  void Call(const Condition& until) {
    int wrong = 0;
    for (int value = 0; !until(); ++value) {
      if (library_.Call(value) != value + 1) ++wrong;
    }
    EXPECT_EQ(wrong, 0);
  }

  Library library_;
  std::atomic<bool> stop_{false};
};

TEST_F(Storm, ThreadsCallWhileTwoHooksComeAndGo) {
  void* const original = *library_.slot();
  const auto call = [this] { Call([this] { return stop_.load(); }); };
  const auto hook = [this](int (*function)(int)) {
    for (int round = 0; round < 500 || hooked_calls < 1000; ++round) ComeAndGo(function);
  };
  std::thread callers[] = {std::thread(call), std::thread(call)};
  std::thread hookers[] = {std::thread(hook, Forward<1>), std::thread(hook, Forward<2>)};
  for (std::thread& each : hookers) each.join();
  stop_ = true;
  for (std::thread& each : callers) each.join();
  EXPECT_EQ(*library_.slot(), original);
}

std::atomic<int> inside{0};
std::atomic<bool> leave{false};

int Wait(int value) {
  ++inside;
  while (!leave) std::this_thread::yield();
  return Previous(Wait)(value);
}

TEST_F(Storm, AHookIsTakenOffWhileAThreadIsInIt) {
  ASSERT_EQ(library_.Hook(Wait), 0);
  int answer = 0;
  std::thread caller([&] {
    errno = EDOM;
    answer = library_.Call(1);
    EXPECT_EQ(errno, EDOM);
  });
  while (inside == 0) std::this_thread::yield();
  EXPECT_EQ(library_.Unhook(Wait), 0);
  EXPECT_EQ(library_.Call(5), 6);
  leave = true;
  caller.join();
  EXPECT_EQ(answer, 2);
  EXPECT_EQ(inside, 1);
}

const Library* signal_library;
std::atomic<int> signal_calls{0};
std::atomic<int> signal_errors{0};

void CallInSignal(int /*signal*/) {
  const int saved_errno = errno;
  if (signal_library->Call(10) != 11 || signal_library->Call(20) != 21) ++signal_errors;
  if (errno != saved_errno) ++signal_errors;
  ++signal_calls;
}

TEST_F(Storm, SignalHandlersMakeHookedCalls) {
  ASSERT_EQ(library_.Hook(Forward<1>), 0);
  signal_library = &library_;
  struct sigaction action = {};
  action.sa_handler = CallInSignal;
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  // Also a thread's first call, which sets up its hook stack, may be interrupted.
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> ready{false};
    const int goal = signal_calls + 50;
    std::thread caller([&] {
      ready = true;
      Call([&] { return signal_calls >= goal; });
    });
    while (!ready) std::this_thread::yield();
    while (signal_calls < goal) {
      pthread_kill(caller.native_handle(), SIGUSR1);
      usleep(50);
    }
    caller.join();
  }
  EXPECT_EQ(signal_errors, 0);
}

TEST_F(Storm, ForkedChildrenCallWhileHooksComeAndGo) {
  std::thread hooker([this] {
    while (!stop_) ComeAndGo(Forward<1>);
  });
  for (int round = 0; round < 40; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      int left = 100;
      Call([&left] { return left-- == 0; });
      _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  stop_ = true;
  hooker.join();
}

}  // namespace
