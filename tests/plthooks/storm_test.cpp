// SPDX-License-Identifier: Apache-2.0
// Hooks are added and removed while threads, signal handlers and forked children call.
#include <dlfcn.h>
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

using lumora::plthooks::hook_plt_method;
using lumora::plthooks::plthooks_initialize;
using lumora::plthooks::unhook_plt_method;

std::atomic<long> hooked_calls{0};

template <int kNumber>
int Forward(int value) {
  ++hooked_calls;
  return Previous(Forward<kNumber>)(value);
}

class Storm : public testing::Test {
 protected:
  /// Adds `hook` and removes it.
  void ComeAndGo(int (*hook)(int)) {
    EXPECT_EQ(library_.Hook(hook), 0);
    EXPECT_EQ(library_.Unhook(hook), 0);
  }

  /// Calls the function until `until` returns true. Every result must be correct.
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

/// The library that stays loaded. Code that runs while the other one is loaded uses it.
const Library* host = nullptr;

void HookWhileLoading() {
  auto* hook = reinterpret_cast<void*>(Forward<3>);
  EXPECT_EQ(hook_plt_method(host->name(), "calls_other", hook), 0);
  EXPECT_EQ(unhook_plt_method(host->name(), "calls_other", hook), 0);
}

TEST_F(Storm, LibrariesAreLoadedAndUnloaded) {
  host = &library_;
  constexpr char kGuest[] = "libplthooks_guest.so";
  auto* on_load = library_.find<decltype(calls_on_load)>("calls_on_load");
  void* const original = *library_.slot();
  std::atomic<long> rounds{0};
  std::atomic<long> guest_hooks{0};
  std::atomic<int> wrong{0};
  const auto load = [&] {
    while (!stop_) {
      void* guest = dlopen(CALLS_GUEST, RTLD_NOW);
      const auto call = reinterpret_cast<decltype(&calls_call)>(dlsym(guest, "calls_call"));
      for (int value = 0; value < 3; ++value) wrong += call(value) != value + 1 ? 1 : 0;
      dlclose(guest);
      ++rounds;
    }
  };
  const auto visit = [&] {
    auto* hook = reinterpret_cast<void*>(Forward<4>);
    while (!stop_) {
      plthooks_initialize();
      if (hook_plt_method(kGuest, "calls_target", hook) != 0) continue;
      ++guest_hooks;
      // A hook keeps the library loaded.
      wrong += unhook_plt_method(kGuest, "calls_target", hook);
    }
  };
  const auto call = [this] { Call([this] { return stop_.load(); }); };
  const auto hook = [this](int (*function)(int)) {
    while (!stop_) ComeAndGo(function);
  };
#if defined(__SANITIZE_THREAD__)
  // The sanitizer does not know the dynamic linker's lock, which loading and unloading hold.
  dlopen(CALLS_GUEST, RTLD_NOW);
#endif
  // Ends the test at a deadlock.
  alarm(100);
  *on_load = HookWhileLoading;
  std::thread threads[] = {std::thread(load), std::thread(visit), std::thread(call),
                           std::thread(hook, Forward<1>), std::thread(hook, Forward<2>)};
  for (int tries = 0; tries < 1000 && (rounds < 300 || guest_hooks < 100); ++tries) usleep(10000);
  stop_ = true;
  for (std::thread& each : threads) each.join();
  *on_load = nullptr;
  EXPECT_GT(rounds, 10);
  EXPECT_GT(guest_hooks, 10);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(*library_.slot(), original);
#if !defined(__SANITIZE_THREAD__)
  EXPECT_EQ(dlopen(CALLS_GUEST, RTLD_NOW | RTLD_NOLOAD), nullptr) << "nobody holds it any more";
#endif
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
  // The first call of a thread sets up its hook stack. A signal may interrupt it.
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

TEST_F(Storm, ForkedChildrenCallWhileHooksChange) {
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
