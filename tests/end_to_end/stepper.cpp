// SPDX-License-Identifier: Apache-2.0
// A program that reads one command per line from standard input and answers "ok":
//   alloc COUNT SIZE   allocates blocks
//   free COUNT         frees the newest blocks
//   churn THREADS MS   threads allocate and free blocks, then "ok"
//   fork FIFO          a child reads commands from FIFO; answers the child's process id
//   quit
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

extern "C" int fork_handlers_linked();

/// The only function that allocates for "alloc". Tests look for its name. The barrier keeps it on
/// the stack.
extern "C" __attribute__((noinline, visibility("default"))) void* StepAllocate(std::size_t size) {
  void* block = std::malloc(size);
  __asm__ volatile("" : "+r"(block) : : "memory");
  return block;  // NOLINT(clang-analyzer-unix.Malloc): the caller keeps it
}

namespace {

void Churn(unsigned threads, unsigned milliseconds) {
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t) {
    workers.emplace_back([=] {
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
      void* blocks[64] = {};
      for (unsigned i = t; std::chrono::steady_clock::now() < end; ++i) {
        void*& block = blocks[i * 2654435761U >> 26];
        std::free(block);
        block = StepAllocate(16 + i % 300);
        if (i % 16 == 0) block = std::realloc(block, 700);
      }
      for (void* block : blocks) std::free(block);
    });
  }
  for (std::thread& worker : workers) worker.join();
}

}  // namespace

int main() {
  static void* blocks[1 << 17];
  std::size_t count = 0;
  if (fork_handlers_linked() == 0) return 1;
  std::FILE* input = stdin;
  char line[512];
  while (std::fgets(line, sizeof line, input) != nullptr) {
    unsigned first = 0;
    unsigned second = 0;
    char path[400];
    if (std::sscanf(line, "alloc %u %u", &first, &second) == 2) {
      for (unsigned i = 0; i < first; ++i) blocks[count++] = StepAllocate(second);
    } else if (std::sscanf(line, "free %u", &first) == 1) {
      for (unsigned i = 0; i < first; ++i) std::free(blocks[--count]);
    } else if (std::sscanf(line, "churn %u %u", &first, &second) == 2) {
      Churn(first, second);
    } else if (std::sscanf(line, "fork %399s", path) == 1) {
      const pid_t child = fork();
      if (child != 0) {
        std::printf("%d\n", child);
      } else {
        input = std::fopen(path, "r");
        if (input == nullptr) return 1;
        continue;
      }
    } else {
      break;
    }
    std::puts("ok");
    std::fflush(stdout);
  }
  while (wait(nullptr) > 0) {
  }
  return 0;
}
