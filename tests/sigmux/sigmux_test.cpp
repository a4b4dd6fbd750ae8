// SPDX-License-Identifier: Apache-2.0
// The multiplexer in separate processes: which handlers run, in which order and with which mask,
// and how the process ends if no handler claims a signal.
#include "sigmux/sigmux.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <list>
#include <random>
#include <string>
#include <thread>

namespace {

std::string trace;
std::atomic<int> deliveries{0};

sigset_t Only(int signum) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signum);
  return set;
}

bool IsBlocked(int signum) {
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, signum) == 1;
}

/// A handler's name and its result.
struct Voice {
  char name;
  int answer;
};

int Speak(sigmux_event* event, void* data) {
  const auto* voice = static_cast<const Voice*>(data);
  EXPECT_EQ(event->signum, event->info->si_signo);
  trace += voice->name;
  // A delivered signal runs the handlers with every signal open, its own included.
  if (event->context != nullptr && (IsBlocked(SIGTERM) || IsBlocked(SIGUSR1))) trace += '!';
  errno = EIO;
  return voice->answer;
}

sigmux_entry* Register(int signum, sigmux_handler handler, void* data, std::uint32_t flags = 0) {
  const sigset_t set = Only(signum);
  return sigmux_register(&set, handler, data, flags);
}

/// Runs with the mask that the kernel would have set for it.
template <int kFlags>
void Previous(int signum, siginfo_t* /*info*/, void* /*context*/) {
  trace += 'P';
  if (signum != SIGUSR1 || !IsBlocked(SIGUSR2) || IsBlocked(SIGTERM) ||
      IsBlocked(SIGUSR1) != ((kFlags & SA_NODEFER) == 0)) {
    trace += '!';
  }
}

/// Installs `Previous` for SIGUSR1, then lets sigmux take the signal over. Blocks SIGTERM.
template <int kFlags>
void TakeOver() {
  const sigset_t blocked = Only(SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  struct sigaction action = {};
  action.sa_sigaction = Previous<kFlags>;
  action.sa_flags = SA_SIGINFO | kFlags;
  action.sa_mask = Only(SIGUSR2);
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  ASSERT_EQ(sigmux_init(SIGUSR1), 0);
}

std::string Deliver(int signum = SIGUSR1) {
  trace.clear();
  raise(signum);
  return trace;
}

/// Compares random registrations, removals and deliveries with a list.
TEST(Sigmux, MatchesTheModel) {
  struct Handler {
    Voice voice;
    sigset_t signals;
    bool late;
    sigmux_entry* entry;
  };
  TakeOver<0>();
  std::mt19937 random(1);
  std::list<Handler> handlers;  // newest first
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    const auto at = [&] { return std::next(handlers.begin(), random() % handlers.size()); };
    const auto action = random() % 8;
    if (action < 2 || handlers.empty()) {
      if (handlers.size() > 12) continue;
      const sigset_t signals = Only(random() % 4 == 0 ? SIGUSR2 : SIGUSR1);
      const bool late = random() % 2 == 0;
      const Voice voice = {static_cast<char>('a' + step % 26), 0};
      Handler& added = handlers.emplace_front(Handler{voice, signals, late, nullptr});
      added.entry = sigmux_register(&signals, Speak, &added.voice, late ? SIGMUX_FLAG_LATE : 0);
    } else if (action < 4) {
      const auto gone = at();
      sigmux_unregister(gone->entry);
      handlers.erase(gone);
    } else if (action == 4) {
      at()->voice.answer = random() % 4 == 0 ? step : 0;
    } else {
      const std::uint32_t selector = action == 5 ? static_cast<std::uint32_t>(1 + random() % 3) : 7;
      std::string expected;
      int answer = 0;
      for (const bool late : {false, true}) {
        if ((selector & (late ? SIGMUX_RUN_LATE : SIGMUX_RUN_NORMAL)) == 0) continue;
        for (const Handler& each : handlers) {
          if (answer != 0 || each.late != late || !sigismember(&each.signals, SIGUSR1)) continue;
          expected += each.voice.name;
          answer = each.voice.answer;
        }
      }
      if (answer == 0 && (selector & SIGMUX_RUN_PREVIOUS) != 0) {
        expected += 'P';
        answer = 1;
      }
      if (action == 5) {
        siginfo_t info = {};
        info.si_signo = SIGUSR1;
        trace.clear();
        EXPECT_EQ(sigmux_handle_signal(SIGUSR1, &info, nullptr, selector), answer);
        EXPECT_EQ(trace, expected);
      } else {
        errno = ERANGE;
        EXPECT_EQ(Deliver(), expected);
        EXPECT_EQ(errno, ERANGE);
      }
    }
  }
}

TEST(Sigmux, InitTakesASignalOverOnce) {
  for (int bad : {-1, 0, 65, SIGKILL}) EXPECT_EQ(sigmux_init(bad), -1);
  TakeOver<0>();
  // A second call does not replace a later handler.
  signal(SIGUSR1, [](int /*signum*/) { trace += 'L'; });
  EXPECT_EQ(sigmux_init(SIGUSR1), 0);
  EXPECT_EQ(Deliver(), "L");
}

TEST(Sigmux, ResetHandRunsOnceThenDies) {
  const auto twice = [] {
    TakeOver<static_cast<int>(SA_RESETHAND) | SA_NODEFER>();
    if (Deliver() != "P") _exit(1);
    Deliver();
    _exit(2);
  };
  EXPECT_EXIT(twice(), ::testing::KilledBySignal(SIGUSR1), "");
}

TEST(Sigmux, UnclaimedSignalsGetTheirDefaultAction) {
  const struct {
    int signum;
    void (*disposition)(int);
    int death;  // 0: continues
  } kCases[] = {
      {SIGSEGV, SIG_DFL, SIGSEGV}, {SIGSEGV, SIG_IGN, SIGSEGV}, {SIGBUS, SIG_IGN, SIGBUS},
      {SIGILL, SIG_IGN, SIGILL},   {SIGABRT, SIG_IGN, SIGABRT}, {SIGTERM, SIG_DFL, SIGTERM},
      {SIGTERM, SIG_IGN, 0},       {SIGCHLD, SIG_DFL, 0},       {SIGWINCH, SIG_DFL, 0},
      {SIGCONT, SIG_IGN, 0},       {SIGCONT, SIG_DFL, SIGABRT}, {SIGURG, SIG_DFL, SIGABRT},
  };
  for (const auto& one : kCases) {
    const auto run = [&one] {
      signal(one.signum, one.disposition);
      if (sigmux_init(one.signum) != 0) _exit(1);
      raise(one.signum);
      _exit(0);
    };
    SCOPED_TRACE(one.signum);
    if (one.death == 0) {
      EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
    } else {
      EXPECT_EXIT(run(), ::testing::KilledBySignal(one.death), "");
    }
  }
}

TEST(Sigmux, RegistrationAndRemovalUnderAStorm) {
  signal(SIGUSR1, [](int /*signum*/) { ++deliveries; });
  ASSERT_EQ(sigmux_init(SIGUSR1), 0);
  const auto claim = [](sigmux_event* /*event*/, void* data) {
    // The data is freed right after the removal. A late delivery would use freed memory.
    ++*static_cast<std::atomic<int>*>(data);
    return 0;
  };
  std::atomic<bool> stop{false};
  std::atomic<unsigned> steps{0};
  const pthread_t target = pthread_self();
  std::thread sender([&] {
    // Signals interrupt the dispatcher too. Only a few for each step of the target, or they would
    // nest until the stack overflows.
    for (unsigned seen = 0; !stop; seen = steps) {
      for (int burst = 0; burst < 4 && seen != steps; ++burst) pthread_kill(target, SIGUSR1);
      raise(SIGUSR1);
    }
  });
  while (deliveries == 0) std::this_thread::yield();
  for (int round = 0; round < 2000; ++round) {
    auto* first = new std::atomic<int>(0);
    auto* second = new std::atomic<int>(0);
    sigmux_entry* one = Register(SIGUSR1, claim, first);
    ++steps;
    sigmux_entry* two = Register(SIGUSR1, claim, second, SIGMUX_FLAG_LATE);
    while (round == 0 && *first == 0) ++steps;
    sigmux_unregister(one);
    delete first;
    while (round == 0 && *second == 0) ++steps;
    ++steps;
    sigmux_unregister(two);
    delete second;
  }
  stop = true;
  sender.join();
}

}  // namespace
