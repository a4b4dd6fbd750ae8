// SPDX-License-Identifier: Apache-2.0
// The workload of bench/compare: malloc/free churn from many call stacks.
//
// Each thread has its own set of live blocks. A step frees a pseudo-random block and allocates one
// of a pseudo-random size, through a pseudo-random path of functions. The number of distinct call
// stacks is an option. The sequence is the same in every run. Prints results as lines of key=value
// words.
//
// With --interactive, reads commands from standard input, one per line:
//   go         start the churn (the program waits for it after it has allocated the blocks)
//   mark       print the longest step since the last mark and reset it
//   dump       let LeakSanitizer write its report
//   stop       end the churn

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Weak: defined only if LeakSanitizer is part of the process.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace {

constexpr unsigned kBitsPerLevel = 3;
constexpr unsigned kFunctions = 1u << kBitsPerLevel;
constexpr unsigned kMaxDepth = 32;
constexpr unsigned kSizes = 16;
/// 16 to 4096 bytes in steps of about 1.45.
constexpr std::size_t kSizeTable[kSizes] = {16,  23,  33,  48,  70,   101,  147,  212,
                                            307, 444, 643, 930, 1346, 1947, 2818, 4096};

struct Options {
  unsigned threads = 1;
  std::size_t live = 20000;
  std::size_t stacks = 512;
  unsigned depth = 12;
  double seconds = 1.0;
  bool interactive = false;
  bool keep_groups = false;
};

/// One level of a call path. The lowest digit of `path` selects the function of the next level.
/// Calls are direct, as in most programs. Each level has its own functions, so that the stacks have
/// hundreds of distinct pcs. The barrier prevents tail calls and merging of identical functions.
template <unsigned kLevelsLeft, unsigned kIndex>
__attribute__((noinline)) void* Level(std::uint64_t path, std::size_t bytes);

template <unsigned kLevelsLeft>
__attribute__((always_inline)) inline void* Call(std::uint64_t path, std::size_t bytes) {
  const std::uint64_t rest = path / kFunctions;
  switch (path % kFunctions) {
    case 0:
      return Level<kLevelsLeft, 0>(rest, bytes);
    case 1:
      return Level<kLevelsLeft, 1>(rest, bytes);
    case 2:
      return Level<kLevelsLeft, 2>(rest, bytes);
    case 3:
      return Level<kLevelsLeft, 3>(rest, bytes);
    case 4:
      return Level<kLevelsLeft, 4>(rest, bytes);
    case 5:
      return Level<kLevelsLeft, 5>(rest, bytes);
    case 6:
      return Level<kLevelsLeft, 6>(rest, bytes);
    default:
      return Level<kLevelsLeft, 7>(rest, bytes);
  }
}

template <unsigned kLevelsLeft, unsigned kIndex>
void* Level(std::uint64_t path, std::size_t bytes) {
  void* block = nullptr;
  if constexpr (kLevelsLeft == 0) {
    block = std::malloc(bytes);
  } else {
    block = Call<kLevelsLeft - 1>(path, bytes);
  }
  __asm__ volatile("" : "+r"(block) : "i"(kLevelsLeft * kFunctions + kIndex) : "memory");
  return block;  // NOLINT(clang-analyzer-unix.Malloc): the worker stores it
}

using Entry = void* (*)(std::uint64_t path, std::size_t bytes);

template <std::size_t... kLevels>
constexpr std::array<Entry, sizeof...(kLevels)> MakeEntries(std::index_sequence<kLevels...>) {
  return {Call<kLevels>...};
}

/// Entry functions: element d - 1 begins a path of depth d.
constexpr std::array<Entry, kMaxDepth> kEntries =
    MakeEntries(std::make_index_sequence<kMaxDepth>());

/// Returns the path of stack number `stack`. Mixes the number into the digits of all levels, so
/// that two stacks differ in most levels. Each step is invertible within `bits`, so different
/// numbers give different paths.
std::uint64_t PathOf(std::uint64_t stack, unsigned bits) {
  const std::uint64_t mask = bits >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
  for (int round = 0; round < 2; ++round) {
    stack = (stack * 0x9E3779B97F4A7C15u) & mask;
    stack ^= stack >> (bits / 2);
  }
  return stack;
}

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  /// Returns a number below `bound` (below 2^32). Constants of Knuth's MMIX generator.
  std::size_t Below(std::size_t bound) {
    state_ = state_ * 6364136223846793005u + 1442695040888963407u;
    return static_cast<std::size_t>(((state_ >> 32) * bound) >> 32);
  }

 private:
  std::uint64_t state_;
};

/// State shared by the worker threads and the thread that reads commands.
struct Control {
  std::atomic<unsigned> filled{0};
  std::atomic<bool> go{false};
  std::atomic<bool> stop{false};
  std::atomic<std::int64_t> longest_gap_ns{0};
};

std::int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

/// Returns the resident memory of this process in KiB. Allocates nothing.
long ResidentKib() {
  char text[128] = {};
  const int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const ssize_t count = read(fd, text, sizeof text - 1);
  close(fd);
  if (count <= 0) return 0;
  const char* resident = std::strchr(text, ' ');
  return resident == nullptr ? 0
                             : std::strtol(resident, nullptr, 10) * (sysconf(_SC_PAGESIZE) / 1024);
}

class Worker {
 public:
  Worker(const Options& options, unsigned number, Control& control)
      : options_(options),
        control_(control),
        entry_(kEntries[options.depth - 1]),
        random_(0x1234567u + number),
        blocks_(options.live),
        paths_(options.stacks) {
    for (std::size_t stack = 0; stack < options.stacks; ++stack) {
      paths_[stack] = PathOf(stack, kBitsPerLevel * options.depth);
    }
  }

  void Run() {
    for (std::size_t slot = 0; slot < options_.live; ++slot)
      blocks_[slot] = Allocate(GroupOf(slot));
    control_.filled.fetch_add(1);
    while (!control_.go.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (options_.interactive) {
      ChurnUntilStopped();
    } else {
      MeasureChurn();
    }
    for (void* block : blocks_) std::free(block);
  }

  double PairsPerSecond() const {
    return elapsed_ns_ == 0 ? 0
                            : static_cast<double>(pairs_) * 1e9 / static_cast<double>(elapsed_ns_);
  }

 private:
  /// Returns the group of a slot. A group is stack * kSizes + size; consecutive slots have
  /// consecutive groups.
  std::size_t GroupOf(std::size_t slot) const { return slot % (options_.stacks * kSizes); }

  void* Allocate(std::size_t group) {
    const std::uint64_t path = paths_[group / kSizes];
    void* block = entry_(path, kSizeTable[group % kSizes]);
    if (block == nullptr) std::abort();
    *static_cast<char*>(block) = 1;
    return block;
  }

  void Step() {
    const std::size_t slot = random_.Below(options_.live);
    std::free(blocks_[slot]);
    const std::size_t group =
        options_.keep_groups ? GroupOf(slot) : random_.Below(options_.stacks * kSizes);
    blocks_[slot] = Allocate(group);
  }

  /// Replaces every live block about once without measuring, then measures.
  void MeasureChurn() {
    constexpr unsigned kBatch = 1024;
    for (std::size_t step = 0; step < options_.live; ++step) Step();
    const std::int64_t begin = NowNs();
    const auto limit = static_cast<std::int64_t>(options_.seconds * 1e9);
    do {
      for (unsigned step = 0; step < kBatch; ++step) Step();
      pairs_ += kBatch;
      elapsed_ns_ = NowNs() - begin;
    } while (elapsed_ns_ < limit);
  }

  /// Churns until it is stopped and records the longest step.
  void ChurnUntilStopped() {
    std::int64_t last = NowNs();
    while (!control_.stop.load(std::memory_order_relaxed)) {
      Step();
      const std::int64_t now = NowNs();
      if (now - last > control_.longest_gap_ns.load(std::memory_order_relaxed)) {
        control_.longest_gap_ns.store(now - last, std::memory_order_relaxed);
      }
      last = now;
    }
  }

  const Options& options_;
  Control& control_;
  const Entry entry_;
  Random random_;
  std::vector<void*> blocks_;
  std::vector<std::uint64_t> paths_;
  std::uint64_t pairs_ = 0;
  std::int64_t elapsed_ns_ = 0;
};

/// Writes a line without buffering, so that the reader of a pipe sees it at once.
template <typename... Arguments>
void Print(const char* format, Arguments... arguments) {
  char line[256];
  const int length = std::snprintf(line, sizeof line, format, arguments...);
  if (length > 0 && write(STDOUT_FILENO, line, static_cast<std::size_t>(length)) < 0) std::abort();
}

/// Reads a line of standard input without its newline. Returns false at the end of input.
bool ReadCommand(char (&line)[64]) {
  std::size_t length = 0;
  char c = 0;
  while (read(STDIN_FILENO, &c, 1) == 1) {
    if (c == '\n') {
      line[length] = '\0';
      return true;
    }
    if (length < sizeof line - 1) line[length++] = c;
  }
  return false;
}

void RunCommands(Control& control) {
  char line[64];
  while (!control.stop.load() && ReadCommand(line)) {
    if (std::strcmp(line, "go") == 0) {
      control.go.store(true);
    } else if (std::strcmp(line, "mark") == 0) {
      const std::int64_t gap = control.longest_gap_ns.exchange(0);
      Print("mark longest_gap_ms=%.3f\n", static_cast<double>(gap) / 1e6);
    } else if (std::strcmp(line, "dump") == 0) {
      const std::int64_t begin = NowNs();
      if (__lsan_do_recoverable_leak_check != nullptr) __lsan_do_recoverable_leak_check();
      Print("dump ms=%.1f\n", static_cast<double>(NowNs() - begin) / 1e6);
    } else if (std::strcmp(line, "stop") == 0) {
      break;
    } else {
      std::fprintf(stderr, "workload: unknown command '%s'; try go, mark, dump or stop\n", line);
    }
  }
  control.stop.store(true);
  control.go.store(true);
}

int Usage(const char* problem) {
  std::fprintf(stderr,
               "workload: %s\n"
               "usage: memleak_workload [--threads N] [--live N] [--stacks N] [--depth 1..%u]\n"
               "       [--seconds S] [--interactive] [--keep-groups]\n",
               problem, kMaxDepth);
  return 2;
}

/// Sets an option that takes a value. Returns whether both are valid.
bool SetOption(const std::string& name, const char* text, Options& options) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(value > 0)) return false;
  if (name == "--seconds") return options.seconds = value, true;
  if (value < 1 || value > UINT32_MAX / kSizes) return false;
  if (name == "--threads") return options.threads = static_cast<unsigned>(value), true;
  if (name == "--live") return options.live = static_cast<std::size_t>(value), true;
  if (name == "--stacks") return options.stacks = static_cast<std::size_t>(value), true;
  if (name != "--depth" || value > kMaxDepth) return false;
  options.depth = static_cast<unsigned>(value);
  return true;
}

int RunAll(const Options& options) {
  Control control;
  std::vector<Worker> workers;
  workers.reserve(options.threads);
  for (unsigned i = 0; i < options.threads; ++i) workers.emplace_back(options, i, control);
  std::vector<std::thread> threads;
  threads.reserve(options.threads);
  for (Worker& worker : workers) threads.emplace_back(&Worker::Run, &worker);
  while (control.filled.load() < options.threads) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (options.interactive) {
    Print("ready pid=%d rss_kib=%ld\n", static_cast<int>(getpid()), ResidentKib());
    RunCommands(control);
  } else {
    control.go.store(true);
  }
  for (std::thread& thread : threads) thread.join();
  double pairs_per_second = 0;
  for (const Worker& worker : workers) pairs_per_second += worker.PairsPerSecond();
  Print("result pairs_per_second=%.0f ns_per_pair=%.2f\n", pairs_per_second,
        pairs_per_second > 0 ? 1e9 * options.threads / pairs_per_second : 0.0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--interactive") {
      options.interactive = true;
    } else if (name == "--keep-groups") {
      options.keep_groups = true;
    } else if (++i == argc || !SetOption(name, argv[i], options)) {
      return Usage(("cannot use '" + name + "'").c_str());
    }
  }
  if (options.depth * kBitsPerLevel < 32 &&
      options.stacks > std::size_t{1} << (options.depth * kBitsPerLevel)) {
    return Usage("too many stacks for this depth");
  }
  return RunAll(options);
}
