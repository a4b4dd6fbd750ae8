// SPDX-License-Identifier: Apache-2.0
// A small server with two leaks. At the end it prints their true size, which can be compared with a
// report. Each round serves the same requests. Deterministic; one thread.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

constexpr std::uint64_t kSessionsPerRound = 1000;
constexpr std::size_t kSessionBytes = 48;
constexpr std::uint64_t kTracesPerRound = 100;
constexpr std::size_t kTraceBytes = 4096;
constexpr std::uint64_t kRequestsPerRound = 5000;

/// Keeps the compiler from removing the allocation of `block`.
void KeepBlock(void* block) {
  __asm__ volatile("" : : "r"(block) : "memory");
}

void* MustAllocate(void* block) {
  if (block == nullptr) {
    std::fputs("leak: out of memory\n", stderr);
    std::exit(1);
  }
  KeepBlock(block);
  return block;
}

}  // namespace

class SessionCache {
 public:
  /// Leaks on purpose: replaces the entry of the previous session without freeing it.
  __attribute__((noinline)) void Remember(std::uint64_t session) {
    void* entry = MustAllocate(std::malloc(kSessionBytes));
    std::memcpy(entry, &session, sizeof session);
    last_entry_ = entry;
    ++remembered_;
  }

  std::uint64_t remembered() const { return remembered_; }

 private:
  void* last_entry_ = nullptr;
  std::uint64_t remembered_ = 0;
};

/// Leaks on purpose: never frees the buffer.
__attribute__((noinline)) void WriteTrace(std::uint64_t number) {
  void* buffer = MustAllocate(std::malloc(kTraceBytes));
  std::memcpy(buffer, &number, sizeof number);
}  // NOLINT(clang-analyzer-unix.Malloc)

namespace {

/// Frees everything that it allocates.
__attribute__((noinline)) void ServeRequest(std::uint64_t number) {
  void* input = MustAllocate(std::malloc(64 + number % 512));
  void* output = MustAllocate(std::calloc(4, 32 + number % 64));
  output = MustAllocate(std::realloc(output, 1024));
  std::free(input);
  std::free(output);
}

__attribute__((noinline)) void RunRound(SessionCache& cache) {
  for (std::uint64_t i = 0; i < kRequestsPerRound; ++i) ServeRequest(i);
  for (std::uint64_t i = 0; i < kSessionsPerRound; ++i) cache.Remember(i);
  for (std::uint64_t i = 0; i < kTracesPerRound; ++i) WriteTrace(i);
}

struct Options {
  std::uint64_t rounds = 1;
  std::uint64_t pause_ms = 0;
  std::uint64_t linger_s = 0;
};

bool ReadNumber(const char* text, std::uint64_t& value) {
  char* end = nullptr;
  value = std::strtoull(text, &end, 10);
  return end != text && *end == '\0' && *text != '-' && value <= 1000000;
}

bool ReadOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 == argc) return false;
    std::uint64_t* target = std::strcmp(argv[i], "--rounds") == 0   ? &options.rounds
                            : std::strcmp(argv[i], "--pause") == 0  ? &options.pause_ms
                            : std::strcmp(argv[i], "--linger") == 0 ? &options.linger_s
                                                                    : nullptr;
    if (target == nullptr || !ReadNumber(argv[i + 1], *target)) return false;
  }
  return true;
}

void PrintTruth(const char* function, std::uint64_t count, std::size_t bytes) {
  std::printf("true leak: function=%s count=%llu size=%zu bytes=%llu\n", function,
              static_cast<unsigned long long>(count), bytes,
              static_cast<unsigned long long>(count) * bytes);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ReadOptions(argc, argv, options)) {
    std::fputs(
        "usage: memleak_example_leak [--rounds N] [--pause MS] [--linger S]\n"
        "  --rounds N  how often to do the same work (default 1)\n"
        "  --pause MS  milliseconds to wait before each round\n"
        "  --linger S  seconds to stay alive after the last round\n",
        stderr);
    return 2;
  }
  SessionCache cache;
  for (std::uint64_t round = 0; round < options.rounds; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(options.pause_ms));
    RunRound(cache);
  }
  PrintTruth("SessionCache::Remember", cache.remembered(), kSessionBytes);
  PrintTruth("WriteTrace", options.rounds * kTracesPerRound, kTraceBytes);
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::seconds(options.linger_s));
  return 0;
}
