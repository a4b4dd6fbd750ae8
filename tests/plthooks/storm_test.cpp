// SPDX-License-Identifier: Apache-2.0
// Hooks are added and removed while threads, signal handlers and forked children call, and while a
// library is loaded and unloaded.
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

const Library* shared = nullptr;
std::atomic<bool> stop{false};
std::atomic<int> signal_calls{0};
std::atomic<int> wrong{0};

template <int kNumber>
int Forward(int value) {
  return Previous(Forward<kNumber>)(value);
}

void Call(int times) {
  for (int value = 0; value < times; ++value) wrong += shared->Call(value) != value + 1 ? 1 : 0;
}

void CallInSignal(int /*signal*/) {
  const int saved_errno = errno;
  Call(2);
  if (errno != saved_errno) ++wrong;
  ++signal_calls;
}

/// Adds hooks and removes them.
void ComeAndGo(int (*hook)(int)) {
  while (!stop) wrong += shared->Hook(hook) + shared->Unhook(hook);
}

/// Runs while the guest is loaded and unloaded.
void HookWhileLoading() {
  wrong += shared->Hook(Forward<3>, "calls_other") + shared->Unhook(Forward<3>, "calls_other");
}

void LoadAndUnload(std::atomic<int>* rounds) {
  for (; !stop; ++*rounds) {
    void* guest = dlopen(CALLS_GUEST, RTLD_NOW);
    const auto call = reinterpret_cast<decltype(&calls_call)>(dlsym(guest, "calls_call"));
    wrong += call(3) - 4;
    dlclose(guest);
  }
}

void HookGuest(std::atomic<int>* hooked) {
  auto* hook = reinterpret_cast<void*>(Forward<4>);
  while (!stop) {
    plthooks_initialize();
    if (hook_plt_method("libplthooks_guest.so", "calls_target", hook) != 0) continue;
    ++*hooked;
    // A hook keeps the library loaded.
    wrong += unhook_plt_method("libplthooks_guest.so", "calls_target", hook);
  }
}

/// The first call of a thread sets up its hook stack. A signal may interrupt it.
void InterruptANewThread() {
  std::atomic<bool> ready{false};
  const int goal = signal_calls + 50;
  std::thread caller([&] {
    ready = true;
    while (signal_calls < goal) Call(1);
  });
  while (!ready) std::this_thread::yield();
  while (signal_calls < goal) {
    pthread_kill(caller.native_handle(), SIGUSR1);
    usleep(50);
  }
  caller.join();
}

void CallInAChild() {
  const pid_t child = fork();
  if (child == 0) {
    wrong = 0;
    Call(100);
    _exit(wrong);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(Storm, EveryCallIsRight) {
  const Library host;
  shared = &host;
  auto* on_load = host.find<decltype(calls_on_load)>("calls_on_load");
  void* const original = *host.slot();
  std::atomic<int> rounds{0};
  std::atomic<int> guest_hooks{0};
  std::signal(SIGUSR1, CallInSignal);
#if defined(__SANITIZE_THREAD__)
  // The sanitizer does not know the dynamic linker's lock, which loading and unloading hold.
  dlopen(CALLS_GUEST, RTLD_NOW);
#endif
  // Ends the test at a deadlock.
  alarm(100);
  *on_load = HookWhileLoading;
  std::thread threads[] = {std::thread(LoadAndUnload, &rounds),
                           std::thread(HookGuest, &guest_hooks), std::thread(ComeAndGo, Forward<1>),
                           std::thread(ComeAndGo, Forward<2>)};
  for (int round = 0; round < 500 && (round < 20 || rounds < 300 || guest_hooks < 100); ++round) {
    InterruptANewThread();
    CallInAChild();
  }
  stop = true;
  for (std::thread& each : threads) each.join();
  *on_load = nullptr;
  EXPECT_GT(rounds, 10);
  EXPECT_GT(guest_hooks, 10);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(*host.slot(), original);
#if !defined(__SANITIZE_THREAD__)
  EXPECT_EQ(dlopen(CALLS_GUEST, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is still loaded";
#endif
}

}  // namespace
