// SPDX-License-Identifier: Apache-2.0
// The program that the loader's tests run with libmemleak_preload.so. The first argument names the
// case. Exit code 0 if the case passes.
#include <dlfcn.h>
#include <errno.h>
#include <grp.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "protocol/state.h"
#include "tests/control_signal.h"

#define CHECK(condition)                                                                        \
  do {                                                                                          \
    if (!(condition)) {                                                                         \
      fprintf(stderr, "%s:%d: not so: %s (errno %d)\n", __FILE__, __LINE__, #condition, errno); \
      _exit(1);                                                                                 \
    }                                                                                           \
  } while (false)

extern "C" int busy_library_thread_blocked();
extern "C" void* busy_library_block();

namespace {

using protocol::ControlThread;

void* Find(const char* library, const char* name) {
  void* handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
  return handle != nullptr ? dlsym(handle, name) : nullptr;
}

const char* Environment(const char* name) {
  const char* value = getenv(name);
  CHECK(value != nullptr);
  return value;
}

int WaitFor(pid_t child) {
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

/// The recorded frames of a block; 0 if it has no record.
ssize_t FramesOf(void* block, uintptr_t* frames, size_t count) {
  using Backtrace = ssize_t (*)(void*, uintptr_t*, size_t);
  const auto recorded =
      reinterpret_cast<Backtrace>(Find("libmemleak_tracker.so", "track_malloc_backtrace"));
  CHECK(recorded != nullptr);
  return recorded(block, frames, count);
}

bool HasReport(pid_t process) {
  std::string path = Environment("MEMLEAK_TRACKER_ROOT");
  path.replace(path.find("%p"), 2, std::to_string(process));
  std::ifstream report(path + "/data/log/reliability/allocations_dump");
  const std::string text{std::istreambuf_iterator<char>(report), {}};
  return text.size() > 3 && text.compare(text.size() - 3, 3, "END") == 0;
}

void Churn(int rounds) {
  void* blocks[64] = {};
  for (int i = 0; i < rounds; ++i) {
    void*& slot = blocks[i % 64];
    slot = i % 3 == 0 ? realloc(slot, static_cast<size_t>(i % 3000 + 1)) : (free(slot), malloc(99));
  }
  for (void* block : blocks) free(block);
}

}  // namespace

/// Every allocation function calls the tracker, which records this function as the caller.
extern "C" __attribute__((visibility("default"))) int Routes() {
  const auto allocates = [&](size_t alignment, size_t size, void* block) {
    CHECK(block != nullptr && reinterpret_cast<uintptr_t>(block) % alignment == 0);
    CHECK(malloc_usable_size(block) >= size);
    uintptr_t frames[2] = {};
    Dl_info caller;
    CHECK(FramesOf(block, frames, 2) > 0);
    CHECK(dladdr(reinterpret_cast<void*>(frames[0]), &caller) != 0);
    CHECK(caller.dli_sname != nullptr && strcmp(caller.dli_sname, "Routes") == 0);
    free(block);
  };
  const auto page = static_cast<size_t>(getpagesize());
  allocates(16, 100, malloc(100));
  allocates(16, 70000, realloc(malloc(10), 70000));
  allocates(16, 100, calloc(10, 10));
  allocates(256, 100, memalign(256, 100));
  allocates(512, 1024, aligned_alloc(512, 1024));
  void* block = nullptr;
  CHECK(posix_memalign(&block, 1024, 100) == 0);
  allocates(1024, 100, block);
  allocates(page, 100, valloc(100));
  allocates(page, 2 * page, pvalloc(page + 1));
  CHECK(pvalloc(SIZE_MAX - 1) == nullptr && errno == ENOMEM);
  CHECK(mallopt(M_MMAP_THRESHOLD, 1 << 20) == 1);
  CHECK(mallinfo2().arena + mallinfo2().hblkhd > 0);
  return 0;
}

namespace {

int Libraries() {
  while (busy_library_thread_blocked() < 0) usleep(1000);
  CHECK(busy_library_thread_blocked() == 0);
  Dl_info loader;
  CHECK(dladdr(reinterpret_cast<void*>(dlsym(RTLD_DEFAULT, "malloc")), &loader) != 0);
  for (int i = 0; i < 50; ++i) {
    for (const char* library : {PLUGIN, loader.dli_fname}) {
      void* handle = dlopen(library, RTLD_NOW);
      CHECK(handle != nullptr && dlclose(handle) == 0);
    }
    Churn(100);
  }
  return 0;
}

/// The loader comes first: the constructors of the program's libraries are recorded.
int Start() {
  uintptr_t frame;
  CHECK(FramesOf(busy_library_block(), &frame, 1) > 0);
  return Libraries();
}

int Threads() {
  for (int i = 0; i < 3; ++i) std::thread(Churn, 100'000'000).detach();
  std::thread([] {
    usleep(100000);
    exit(0);
  }).detach();
  pthread_exit(nullptr);
}

/// Children and grandchildren write their own reports on request. Meanwhile threads allocate,
/// commands and reports run, and another thread forks.
int Fork() {
  std::thread churner(Churn, 3'000'000);
  const auto fork_often = [] {
    for (int round = 0; round < 5; ++round) {
      CHECK(SendControlSignal(getpid(), 0x10) && SendControlSignal(getpid(), 0x40));
      const pid_t child = fork();
      if (child == 0) {
        Churn(1000);
        const pid_t grandchild = fork();
        if (grandchild == 0) _exit(6);
        CHECK(WEXITSTATUS(WaitFor(grandchild)) == 6 && HasReport(grandchild));
        exit(7);
      }
      const int status = WaitFor(child);
      CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 7 && HasReport(child));
    }
  };
  std::thread other(fork_often);
  fork_often();
  other.join();
  churner.join();
  return 0;
}

/// Random commands run in order, also across forks. One report may answer equal commands that
/// directly follow each other. Two reports never run at once.
int Commands() {
  const std::string path = Environment("MEMLEAK_TRACKER_LOG");
  remove(path.c_str());
  constexpr uint64_t kWords[] = {0x10, 0x20, 0x40, 0x50, 0x40, 0x30};
  constexpr uint64_t kLast = 0x80;
  void* blocks[400];
  CHECK(SendControlSignal(getpid(), 0x90));
  std::vector<uint64_t> sent = {0x90};
  std::vector<uint64_t> received;
  std::mt19937 random(7);
  for (int i = 0; i < 300; ++i) {
    for (size_t size = 1; i < 20 && size < std::size(blocks); ++size) blocks[size] = malloc(size);
    sent.push_back(i < 299 ? kWords[random() % std::size(kWords)] : kLast);
    CHECK(SendControlSignal(getpid(), sent.back()));
    if (i % 50 != 30) continue;
    const pid_t child = fork();
    if (child == 0) _exit(7);
    CHECK(WEXITSTATUS(WaitFor(child)) == 7);
  }
  std::ifstream log;
  std::string line;
  bool reporting = false;
  for (int i = 0; i < 30'000 && (received.empty() || received.back() != kLast); ++i) {
    usleep(1000);
    if (!log.is_open()) log.open(path);
    log.clear();
    for (std::string part; std::getline(log, part); line.clear()) {
      line += part;
      if (log.eof()) break;  // the line has no end yet
      const size_t word = line.find("addr:0x");
      if (word != line.npos) received.push_back(strtoull(&line[word + 5], nullptr, 16));
      CHECK(!reporting || line.find("Start dumping") == line.npos);
      if (line.find("Start dumping") != line.npos) reporting = true;
      if (line.find("kxlog_exception failed") != line.npos) reporting = false;
    }
  }
  const auto same_report = [](uint64_t a, uint64_t b) { return a == b && (a & 0x40) != 0; };
  for (auto* words : {&sent, &received}) {
    words->erase(std::unique(words->begin(), words->end(), same_report), words->end());
  }
  CHECK(sent == received);
  return 0;
}

/// Commands that arrive at any moment of an exit neither kill nor block the process.
int ExitStorm() {
  // The emulator crashes when a child of a process with threads starts one.
  while (busy_library_thread_blocked() < 0) usleep(1000);
  usleep(100'000);
  for (int round = 0; round < 15; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      usleep(static_cast<useconds_t>(round * 300));
      exit(0);
    }
    int status = -1;
    while (waitpid(child, &status, WNOHANG) == 0) {
      SendControlSignal(child, 0x20);
      usleep(20);
    }
    CHECK(status == 0);
  }
  return 0;
}

/// Sends a command and waits until it is carried out.
void CarryOut(uint64_t word) {
  const auto* pointer =
      static_cast<std::atomic<protocol::State*>*>(dlsym(RTLD_DEFAULT, protocol::kStateVariable));
  const uint64_t before = pointer->load()->carried_out;
  CHECK(SendControlSignal(getpid(), word));
  // The handler may run late, on another thread.
  for (int i = 0; i < 10'000 && pointer->load()->carried_out == before; usleep(1000)) {
    free(malloc(static_cast<size_t>(++i)));
  }
  CHECK(pointer->load()->carried_out > before);
  CHECK(pointer->load()->control_thread == ControlThread::kRunning);
}

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

/// The C library does not know of the child, so the loader's fork handlers have not run in it.
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
  for (int i = 0; i < 300; ++i) {
    CHECK(SendControlSignal(getpid(), i % 2 == 0 ? 0x90 : 0x40));
    usleep(50);
  }
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

/// Blocks that are allocated inside dlsym stay valid.
int Nested() {
  void** blocks = static_cast<void**>(Find(NESTED_DLSYM, "nested_blocks"));
  CHECK(blocks != nullptr);
  for (int i = 0; i < 5; ++i) CHECK(blocks[i] != nullptr);
  CHECK(malloc_usable_size(blocks[0]) == 40 && malloc_usable_size(blocks[4]) == 77);
  for (int i = 0; i < 300; ++i) CHECK(static_cast<char*>(blocks[1])[i] == 0);
  CHECK(reinterpret_cast<uintptr_t>(blocks[2]) % 1024 == 0);
  CHECK(strcmp(static_cast<char*>(blocks[3]), "grow") == 0);
  for (int i = 1; i < 5; ++i) free(blocks[i]);
  char* moved = static_cast<char*>(realloc(blocks[0], 100000));
  CHECK(strcmp(moved, "kept") == 0);
  free(moved);
  return 0;
}

/// Another allocator runs below the loader. Its blocks are larger than the C library's.
int Next() {
  void* block = malloc(1);
  CHECK(malloc_usable_size(block) == 8);
  free(block);
  CarryOut(0x10);
  uintptr_t frame;
  void* volatile one = ::operator new(1);
  CHECK(FramesOf(one, &frame, 1) > 0);
  ::operator delete(one);
  return Libraries() + Fork();
}

}  // namespace

int main(int, char** arguments) {
  const std::string name = arguments[1];
  const struct {
    const char* name;
    int (*run)();
  } cases[] = {
      {"routes", Routes},     {"threads", Threads}, {"start", Start}, {"libraries", Libraries},
      {"fork", Fork},         {"nested", Nested},   {"next", Next},   {"exit_storm", ExitStorm},
      {"commands", Commands}, {"hostile", Hostile}};
  for (const auto& one : cases) {
    if (name == one.name) return one.run();
  }
  CHECK(!"a known case");
}
