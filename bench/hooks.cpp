// SPDX-License-Identifier: Apache-2.0
// Measures the hook engine: a hooked call against a plain one, indexing 200 loaded libraries, and
// hooking 1000 slots. Prints one table.
//
// Compare ratios within a run, not times of different runs: repetitions are interleaved, so that
// other load affects all rows. The optional argument is the library to hook, of which copies are
// loaded; the default is the one in the build tree.

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "linker/sharedlibs.h"
#include "plthooks/plthooks.h"
#include "plthooks/trampoline.h"

namespace {

using lumora::plthooks::plt_hook_spec;

constexpr int kRepetitions = 9;
constexpr long kCalls = 1'000'000;
constexpr int kLibraries = 200;
constexpr int kHookLevels = 2;
constexpr int kMaxThreads = 2;

[[noreturn]] void Fail(const char* what, const char* why) {
  std::fprintf(stderr, "hooks: %s: %s\n", what, why);
  std::exit(2);
}

template <typename Work>
double Seconds(Work work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// A hook that only forwards. One function per level.
template <int kLevel>
void Empty(long value) {
  void* const hook = reinterpret_cast<void*>(Empty<kLevel>);
  reinterpret_cast<void (*)(long)>(lumora::plthooks::get_previous_from_hook(hook))(value);
}

/// The library at `path`. Never unloaded.
class Library {
 public:
  explicit Library(const std::string& path)
      : name_(path.substr(path.rfind('/') + 1)), handle_(dlopen(path.c_str(), RTLD_NOW)) {
    if (handle_ == nullptr) Fail("cannot load the library to hook", dlerror());
  }
  const char* name() const { return name_.c_str(); }
  template <typename T>
  T* find(const char* symbol) const {
    void* found = dlsym(handle_, symbol);
    if (found == nullptr) Fail("not the library to hook", dlerror());
    return reinterpret_cast<T*>(found);
  }
  template <typename T>
  void Hook(const char* function, T* hook) const {
    if (lumora::plthooks::hook_plt_method(name(), function, reinterpret_cast<void*>(hook)) != 0) {
      Fail("cannot hook", function);
    }
  }

 private:
  std::string name_;
  void* handle_;
};

/// Loads `count` copies of a library and deletes the files.
std::vector<Library> LoadCopies(const std::string& path, int count) {
  std::string pattern = std::filesystem::temp_directory_path() / "memleak-hooks.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) Fail("cannot make a directory", pattern.c_str());
  std::vector<Library> copies;
  for (int at = 0; at < count; ++at) {
    const std::string copy = pattern + "/libcopy" + std::to_string(at) + ".so";
    std::filesystem::copy_file(path, copy);
    copies.emplace_back(copy);
  }
  std::filesystem::remove_all(pattern);
  return copies;
}

/// Returns the best time to index all loaded libraries. Each repetition is a child process, which
/// has no index yet.
double IndexSeconds() {
  double best = std::numeric_limits<double>::max();
  for (int repetition = 0; repetition < kRepetitions; ++repetition) {
    int ends[2];
    if (pipe(ends) != 0) Fail("pipe", "failed");
    const pid_t child = fork();
    if (child == 0) {
      const double seconds = Seconds([] { lumora::linker::linker_initialize(); });
      _exit(write(ends[1], &seconds, sizeof(seconds)) == sizeof(seconds) ? 0 : 1);
    }
    double seconds = 0;
    if (read(ends[0], &seconds, sizeof(seconds)) != sizeof(seconds)) Fail("child", "no answer");
    waitpid(child, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
    best = std::min(best, seconds);
  }
  return best;
}

double ThreadSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Returns the CPU time in nanoseconds of one iteration of `loop(count)`, in the slowest of
/// `threads` threads that start together. CPU time excludes other processes and includes cache
/// misses.
double Nanoseconds(void (*loop)(long), long count, int threads) {
  std::atomic<int> waiting{threads};
  std::atomic<double> slowest{0};
  const auto work = [&] {
    loop(count / 100);
    for (--waiting; waiting > 0;) {
    }
    const double begin = ThreadSeconds();
    loop(count);
    const double seconds = ThreadSeconds() - begin;
    for (double other = slowest; other < seconds;) slowest.compare_exchange_weak(other, seconds);
  };
  std::vector<std::thread> others;
  for (int thread = 1; thread < threads; ++thread) others.emplace_back(work);
  work();
  for (std::thread& other : others) other.join();
  return slowest * 1e9 / static_cast<double>(count);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

/// Indexed by [hooks][threads - 1].
struct CallTable {
  double ns[kHookLevels + 1][kMaxThreads];
};

/// Returns medians: the best runs would be those in which the threads did not run at the same time.
CallTable MeasureCalls(const std::vector<Library>& libraries) {
  std::vector<double> samples[kHookLevels + 1][kMaxThreads];
  for (int repetition = 0; repetition < kRepetitions; ++repetition) {
    for (int hooks = 0; hooks <= kHookLevels; ++hooks) {
      auto* loop = libraries[static_cast<std::size_t>(hooks)].find<void(long)>("bench_call");
      for (int threads = 1; threads <= kMaxThreads; ++threads) {
        samples[hooks][threads - 1].push_back(Nanoseconds(loop, kCalls, threads));
      }
    }
  }
  CallTable table = {};
  for (int hooks = 0; hooks <= kHookLevels; ++hooks) {
    for (int thread = 0; thread < kMaxThreads; ++thread) {
      table.ns[hooks][thread] = Median(samples[hooks][thread]);
    }
  }
  return table;
}

/// The best times to hook and unhook the thousand imports of a library.
struct SlotTimes {
  double hook = 1e9;
  double unhook = 1e9;
};

SlotTimes MeasureSlots(const Library& library) {
  std::vector<std::string> names;
  for (int at = 0; at < 1000; ++at) names.push_back("bench_import_" + std::to_string(at));
  SlotTimes best;
  for (int repetition = 0; repetition < kRepetitions; ++repetition) {
    std::vector<plt_hook_spec> specs;
    specs.reserve(names.size());
    for (const std::string& name : names) {
      specs.push_back(
          {name.c_str(), nullptr, reinterpret_cast<void*>(Empty<1>), false, 0, nullptr});
    }
    int failures = 0;
    best.hook = std::min(best.hook, Seconds([&] {
                           failures += lumora::plthooks::hook_single_lib(
                               library.name(), specs.data(), specs.size());
                         }));
    best.unhook = std::min(best.unhook, Seconds([&] {
                             failures += lumora::plthooks::unhook_single_lib(
                                 library.name(), specs.data(), specs.size());
                           }));
    for (const plt_hook_spec& spec : specs) failures += spec.hook_result != 2 ? 1 : 0;
    if (failures != 0) Fail("hooking a thousand slots", "some failed");
  }
  return best;
}

void Print(const CallTable& calls, double index, const SlotTimes& slots) {
  std::printf(
      "ns per call through the GOT   1 thread  2 threads   2 over 1    over a plain call\n");
  for (int hooks = 0; hooks <= kHookLevels; ++hooks) {
    const double one = calls.ns[hooks][0];
    const double two = calls.ns[hooks][1];
    std::printf("  %d hook(s)                 %10.1f %10.1f %10.2f", hooks, one, two, two / one);
    if (hooks > 0) std::printf("    %+10.1f", one - calls.ns[0][0]);
    if (hooks == 1) std::printf("  (aims: at most +100; 2 over 1 at most 1.3)");
    std::printf("\n");
  }
  std::printf("index of %d more libraries of 1000 imports: %.1f ms (aim: at most 50)\n", kLibraries,
              index * 1e3);
  std::printf("1000 slots: hooked in %.1f ms, unhooked in %.1f ms\n", slots.hook * 1e3,
              slots.unhook * 1e3);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2) Fail("usage", "memleak_bench_hooks [PATH-OF-libmemleak_bench_calls.so]");
  const auto directory =
      std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
  const std::string path = argc == 2 ? argv[1] : directory / "lib/libmemleak_bench_calls.so";
  if (access(path.c_str(), R_OK) != 0) Fail("no library to hook", path.c_str());
  const std::vector<Library> libraries = LoadCopies(path, kLibraries);
  const double index = IndexSeconds();
  if (lumora::plthooks::plthooks_initialize() != 0) Fail("plthooks_initialize", "failed");
  libraries[1].Hook("bench_empty", Empty<1>);
  libraries[2].Hook("bench_empty", Empty<1>);
  libraries[2].Hook("bench_empty", Empty<2>);
  const CallTable calls = MeasureCalls(libraries);
  Print(calls, index, MeasureSlots(libraries[3]));
  return 0;
}
