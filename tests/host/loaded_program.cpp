// SPDX-License-Identifier: Apache-2.0
// The program that the loader's tests run with libmemleak_preload.so. The first argument names the
// case. Exit code 0 if the case passes.
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/host/loaded_program.h"

extern "C" int busy_library_thread_blocked();
extern "C" void* busy_library_block();

namespace {

void* Find(const char* library, const char* name) {
  void* handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
  return handle != nullptr ? dlsym(handle, name) : nullptr;
}

/// The recorded frames of a block; 0 if it has no record.
ssize_t FramesOf(void* block, uintptr_t* frames, size_t count) {
  using Backtrace = ssize_t (*)(void*, uintptr_t*, size_t);
  const auto recorded =
      reinterpret_cast<Backtrace>(Find("libmemleak_tracker.so", "track_malloc_backtrace"));
  CHECK(recorded != nullptr);
  return recorded(block, frames, count);
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
  static void* blocks[400];  // static: a large frame would hide the callers
  CHECK(SendControlSignal(getpid(), 0x90));
  std::vector<uint64_t> sent = {0x90};
  std::vector<uint64_t> received;
  static std::mt19937 random(7);
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
