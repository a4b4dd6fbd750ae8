// SPDX-License-Identifier: Apache-2.0
// A program to attach to. Until its input ends, the main thread reads numbers. For each number N it
// leaks N blocks of kLeakedBytes and prints "ok". The first argument selects what other threads do:
//   wait      threads wait in system calls and print the calls that end early
//   threads   threads allocate and free
//   malloc    allocates and frees, without any system call, until SIGTERM; reads nothing
//   dlopen    a thread opens and closes the library in the second argument
//   linker    a thread is in the constructor of that library until the program ends
//   signal    a handler computes half of the time, and there is no other thread
#include <dlfcn.h>
#include <linux/futex.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kLeakedBytes = 4321;
std::atomic<int> never{0};
void* volatile leaked;

__attribute__((noinline)) void Leak() {
  leaked = std::malloc(kLeakedBytes);
}

template <typename Step>
void Start(Step step) {
  std::thread([step]() mutable {
    while (true) step();
  }).detach();
}

// Repeats a call that waits for two seconds. Prints its name if it ends early or with another
// result than `error`: 0 for success, otherwise an errno value.
void Await(const char* name, int error, const std::function<long()>& call) {
  Start([=] {
    const auto start = steady_clock::now();
    const long result = call();
    const int got = result == 0 ? 0 : errno;
    if (steady_clock::now() - start < milliseconds(1990) || got != error) {
      std::printf("%s ended with %d\n", name, got);
      std::fflush(stdout);
    }
  });
}

void Wait() {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  Await("read", -1, [=] {
    char byte = 0;
    return read(ends[0], &byte, 1);
  });
  Await("nanosleep", 0, [] {
    const timespec time{2, 0};
    return nanosleep(&time, nullptr);
  });
  Await("poll", 0, [] { return poll(nullptr, 0, 2000); });
  Await("epoll_wait", 0, [queue = epoll_create1(0)] {
    epoll_event event{};
    return epoll_wait(queue, &event, 1, 2000);
  });
  Await("futex", ETIMEDOUT, [] {
    const timespec time{2, 0};
    return syscall(SYS_futex, &never, FUTEX_WAIT, 0, &time, nullptr, 0);
  });
  Await("sigtimedwait", EAGAIN, [] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    const timespec time{2, 0};
    return sigtimedwait(&set, nullptr, &time);
  });
}

void Churn() {
  static thread_local void* kept[64];
  static thread_local unsigned round = 0;
  void*& block = kept[++round * 2654435761U >> 26];
  std::free(block);
  block = std::malloc(16 + round % 3000);
  if (round % 16 == 0) block = std::realloc(block, 700);
}

void Compute() {
  const auto end = steady_clock::now() + milliseconds(5);
  while (steady_clock::now() < end) {
  }
}

void StartTimer() {
  const itimerval once{{0, 0}, {0, 5000}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

void Signals() {
  // The thread leaves the handler for 5 ms, also on a busy machine.
  signal(SIGALRM, [](int) {
    Compute();
    StartTimer();
  });
  StartTimer();
}

}  // namespace

int main(int, char** arguments) {
  const std::string mode = arguments[1];
  if (mode == "malloc") {
    signal(SIGTERM, [](int) { _exit(0); });
    while (true) Churn();
  }
  const char* library = arguments[2];
  if (mode == "signal") Signals();
  if (mode == "wait") Wait();
  if (mode == "threads") Start(Churn), Start(Churn);
  if (mode == "dlopen")
    Start([=] {
      dlclose(dlopen(library, RTLD_NOW));
      std::this_thread::sleep_for(milliseconds(1));
    });
  if (mode == "linker") Start([=] { dlopen(library, RTLD_NOW); });
  int count = 0;
  while (std::scanf("%d", &count) == 1) {
    while (count-- > 0) Leak();
    std::puts("ok");
    std::fflush(stdout);
  }
  _exit(0);
}
