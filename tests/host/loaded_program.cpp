// The program that the loader's tests run with libmemleak_preload.so and the stand-in tracker: one
// case an invocation, named by the first argument. Ends with 0 when the case holds.
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "tests/control_signal.h"
#include "tests/host/fake_tracker.h"

#define CHECK(condition)                                                                        \
  do {                                                                                          \
    if (!(condition)) {                                                                         \
      fprintf(stderr, "%s:%d: not so: %s (errno %d)\n", __FILE__, __LINE__, #condition, errno); \
      _exit(1);                                                                                 \
    }                                                                                           \
  } while (false)

extern "C" int busy_library_thread_blocked();

namespace {

FakeTracker* fake = nullptr;

void* Find(const char* library, const char* name) {
  void* handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
  return handle != nullptr ? dlsym(handle, name) : nullptr;
}

const char* Environment(const char* name) {
  const char* value = getenv(name);
  CHECK(value != nullptr);
  return value;
}

bool WaitForCommands(int count) {
  for (int i = 0; i < 4000 && fake->commands < count; ++i) usleep(5000);
  return fake->commands == count;
}

int WaitFor(pid_t child) {
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

void Churn(int rounds) {
  void* blocks[64] = {};
  for (int i = 0; i < rounds; ++i) {
    void*& slot = blocks[i % 64];
    slot = i % 3 == 0 ? realloc(slot, static_cast<size_t>(i % 3000 + 1)) : (free(slot), malloc(99));
  }
  for (void* block : blocks) free(block);
}

/// Calls each function and checks that the tracker's entry was reached straight from here.
int Routes() {
  Dl_info self;
  CHECK(dladdr(reinterpret_cast<void*>(Routes), &self) != 0);
  const auto page = static_cast<size_t>(getpagesize());
  int volatile result = 0;
  const auto routed = [&](const char* entry, auto call) {
    fake->last_entry = "";
    call();
    const char* reached = fake->last_entry;
    CHECK(strcmp(reached, entry) == 0);
    if (*entry == '\0') return;
    // Aggregates are returned through a copy, so mallinfo, which records nothing, has a frame.
    Dl_info caller;
    CHECK(dladdr(const_cast<void*>(fake->last_caller.load()), &caller) != 0);
    CHECK(caller.dli_fbase == self.dli_fbase || strcmp(entry, "mallinfo") == 0);
  };
  const auto allocates = [&](const char* entry, size_t alignment, auto call) {
    void* block = nullptr;
    routed(entry, [&] { block = call(); });
    CHECK(block != nullptr && reinterpret_cast<uintptr_t>(block) % alignment == 0);
    routed("malloc_usable_size", [&] { CHECK(malloc_usable_size(block) >= 100); });
    routed("free", [&] { free(block); });
  };
  allocates("malloc", 16, [] { return malloc(100); });
  allocates("realloc", 16, [block = malloc(10)] { return realloc(block, 70000); });
  allocates("calloc", 16, [] { return calloc(10, 10); });
  allocates("memalign", 256, [] { return memalign(256, 100); });
  allocates("aligned_alloc", 512, [] { return aligned_alloc(512, 1024); });
  allocates("posix_memalign", 1024, [] {
    void* block = nullptr;
    return posix_memalign(&block, 1024, 100) == 0 ? block : nullptr;
  });
  allocates("memalign", page, [] { return valloc(100); });
  allocates("memalign", page, [page] {
    void* block = pvalloc(page + 1);
    CHECK(fake->next->malloc_usable_size(block) >= 2 * page);
    return block;
  });
  routed("", [] { CHECK(pvalloc(SIZE_MAX - 1) == nullptr && errno == ENOMEM); });
  routed("mallopt", [] { mallopt(M_MMAP_THRESHOLD, 1 << 20); });
  FILE* sink = fopen("/dev/null", "we");
  setvbuf(sink, nullptr, _IONBF, 0);  // Or it allocates a buffer.
  routed("malloc_info", [&] { result = malloc_info(0, sink); });
  fclose(sink);
  using Mallinfo = struct mallinfo (*)();
  const auto old_mallinfo = reinterpret_cast<Mallinfo>(dlsym(RTLD_DEFAULT, "mallinfo"));
  routed("mallinfo", [&] { result = old_mallinfo().uordblks; });
  routed("", [&] { result = static_cast<int>(mallinfo2().arena); });
  errno = 0;
  CHECK(fake->next->malloc_iterate(0, 0, nullptr, nullptr) == -1 && errno == ENOSYS);
  fake->next->malloc_disable(), fake->next->malloc_enable();
  return 0;
}

/// A thread older than the loader's constructor leaves the signal to the control thread, too.
int Libraries() {
  while (busy_library_thread_blocked() < 0) usleep(1000);
  CHECK(busy_library_thread_blocked() == 1);
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

int Threads() {
  for (int i = 0; i < 3; ++i) std::thread(Churn, 100'000'000).detach();
  std::thread([] {
    usleep(100000);
    exit(0);
  }).detach();
  pthread_exit(nullptr);
}

/// Children, and theirs, take commands and write reports of their own while threads churn and
/// commands arrive.
int Fork() {
  std::thread churner(Churn, 3'000'000);
  for (int round = 0; round < 5; ++round) {
    CHECK(SendControlSignal(getpid(), 0x20));
    const pid_t child = fork();
    if (child == 0) {
      Churn(1000);
      fake->commands = 0;
      const pid_t grandchild = fork();
      CHECK(SendControlSignal(getpid(), 0x10) && WaitForCommands(1) && fake->elsewhere == 0);
      if (grandchild == 0) exit(6);
      CHECK(WEXITSTATUS(WaitFor(grandchild)) == 6);
      exit(7);
    }
    const int status = WaitFor(child);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 7);
    std::string path = Environment("MEMLEAK_TRACKER_ROOT");
    path.replace(path.find("%p"), 2, std::to_string(child));
    std::ifstream report(path + "/data/log/reliability/allocations_dump");
    const std::string text{std::istreambuf_iterator<char>(report), {}};
    CHECK(text == "Native Heap END");
  }
  churner.join();
  CHECK(WaitForCommands(5));
  return 0;
}

/// Commands that arrive at any moment of an exit neither kill nor hang the process.
int ExitStorm() {
  for (int round = 0; round < 15; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      usleep(static_cast<useconds_t>(round * 300));
      exit(0);
    }
    int status = -1;
    while (waitpid(child, &status, WNOHANG) == 0) {
      SendControlSignal(child, 0x20);
      sched_yield();
    }
    CHECK(status == 0);
  }
  return 0;
}

/// Blocks that were made inside dlsym stay usable, and the tracker never sees them.
int Nested() {
  void** blocks = static_cast<void**>(Find(NESTED_DLSYM, "nested_blocks"));
  CHECK(blocks != nullptr);
  for (int i = 0; i < 5; ++i) CHECK(blocks[i] != nullptr);
  fake->last_entry = "";
  CHECK(malloc_usable_size(blocks[0]) == 40 && malloc_usable_size(blocks[4]) == 77);
  for (int i = 0; i < 300; ++i) CHECK(static_cast<char*>(blocks[1])[i] == 0);
  CHECK(reinterpret_cast<uintptr_t>(blocks[2]) % 1024 == 0);
  CHECK(strcmp(static_cast<char*>(blocks[3]), "grow") == 0);
  for (int i = 1; i < 5; ++i) free(blocks[i]);
  CHECK(*fake->last_entry.load() == '\0');
  char* moved = static_cast<char*>(realloc(blocks[0], 100000));
  CHECK(strcmp(fake->last_entry, "malloc") == 0 && strcmp(moved, "kept") == 0);
  free(moved);
  CHECK(strcmp(fake->last_entry, "free") == 0);
  return Routes();
}

/// The allocator behind the loader comes from the library named by the environment.
int Next() {
  Dl_info next;
  CHECK(dladdr(reinterpret_cast<void*>(fake->next->malloc), &next) != 0);
  CHECK(strstr(next.dli_fname, Environment("EXPECTED_ALLOCATOR")) != nullptr);
  return Routes() + Libraries() + Fork();
}

/// Loader without a tracker.
int Untracked() {
  Churn(10000);
  CHECK(Find("libmemleak_tracker.so", "track_malloc") == nullptr);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  CHECK(sigismember(&mask, 44) == 0);
  return 0;
}

}  // namespace

int main(int, char** arguments) {
  const std::string name = arguments[1];
  if (name == "untracked") return Untracked();
  const auto state =
      reinterpret_cast<FakeTracker* (*)()>(Find("libmemleak_tracker.so", "fake_tracker_state"));
  CHECK(state != nullptr);
  fake = state();
  const struct {
    const char* name;
    int (*run)();
  } cases[] = {{"routes", Routes}, {"threads", Threads}, {"libraries", Libraries}, {"fork", Fork},
               {"nested", Nested}, {"next", Next},       {"exit_storm", ExitStorm}};
  for (const auto& one : cases) {
    if (name == one.name) return one.run();
  }
  CHECK(!"a known case");
}
