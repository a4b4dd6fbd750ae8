// SPDX-License-Identifier: Apache-2.0
// A process that is hostile to the control channel, with the loader.
#include <grp.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "tests/host/loaded_program.h"

namespace {

/// A signal handler ends the process while its thread is in the allocator.
void ExitInsideMalloc() {
  const pid_t child = fork();
  if (child == 0) {
    mallopt(M_ARENA_MAX, 1);
    CarryOut(0x10);
    signal(SIGALRM, [](int) { _exit(7); });
    ualarm(20'000, 0);
    void* blocks[20'000];
    for (void*& block : blocks) block = malloc(2000);
    for (size_t i = 0; i < std::size(blocks); i += 2) free(blocks[i]);
    for (;;) mallinfo2();  // nearly always holds the lock
  }
  const time_t start = time(nullptr);
  CHECK(WEXITSTATUS(WaitFor(child)) == 7 && time(nullptr) - start < 30);
}

/// The child is made by a direct clone call, so the loader's fork handlers have not run in it.
void RawFork() {
  CarryOut(0x10);
  const auto start = std::chrono::steady_clock::now();
  const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  if (child == 0) {
    const pid_t grandchild = fork();
    if (grandchild == 0) _exit(6);
    CHECK(WEXITSTATUS(WaitFor(grandchild)) == 6);
    exit(7);
  }
  CHECK(WEXITSTATUS(WaitFor(child)) == 7);
  CHECK(std::chrono::steady_clock::now() - start < std::chrono::seconds(1));
}

/// Old functions cannot replace the handler of the control signal or block it. dlsym avoids their
/// deprecation warnings.
void OldSignalFunctions() {
  using Signal = sighandler_t (*)(int, sighandler_t);
  for (const char* name : {"sigset", "__sysv_signal"}) {
    const auto set = reinterpret_cast<Signal>(dlsym(RTLD_DEFAULT, name));
    set(protocol::control_signal, [](int) { _exit(9); });
  }
  reinterpret_cast<int (*)(int)>(dlsym(RTLD_DEFAULT, "sighold"))(protocol::control_signal);
  CarryOut(0x10);
}

}  // namespace

/// A recording process blocks and awaits all signals, has commands interrupt its allocator, fills
/// its signal queue, and gives up its privileges.
int Hostile() {
  CarryOut(0x10);
  OldSignalFunctions();
  RawFork();
  for (int i = 0; i < 3; ++i) ExitInsideMalloc();
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  std::thread waiter([&] {
    int signal = 0;
    CHECK(sigwait(&all, &signal) == 0 && signal == SIGUSR1);
  });
  std::thread churners[] = {std::thread(Churn, 1'000'000), std::thread(Churn, 1'000'000)};
  CarryOut(0x40, 0x90, 10'000);
  for (std::thread& churner : churners) churner.join();
  kill(getpid(), SIGUSR1);
  waiter.join();
  CarryOut(0x10);
  const auto in_child = [](int (*run)()) {
    const pid_t child = fork();
    if (child == 0) {
      CarryOut(0x10);
      CHECK(run() == 0);
      CarryOut(0x20);
      _exit(7);
    }
    const int status = WaitFor(child);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 7 && HasReport(child));
  };
  in_child([] { return unshare(geteuid() == 0 ? CLONE_NEWUSER : CLONE_FS); });
  if (geteuid() == 0) in_child([] { return prctl(PR_SET_KEEPCAPS, 1) + setresgid(1, 1, 1); });
  if (geteuid() == 0) in_child([] { return setgroups(0, nullptr) + setgid(2); });
  constexpr rlimit kNone{0, 0};
  CHECK(setrlimit(RLIMIT_SIGPENDING, &kNone) == 0);
  const time_t start = time(nullptr);
  for (int i = 0; i < 10; ++i) {
    const pid_t child = fork();
    if (child == 0) quick_exit(7);
    CHECK(WEXITSTATUS(WaitFor(child)) == 7 && HasReport(child));
  }
  CHECK(time(nullptr) - start < 5);
  return 0;
}
