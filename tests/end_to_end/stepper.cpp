// SPDX-License-Identifier: Apache-2.0
// A program that reads one command per line from standard input and answers "ok" if it succeeds:
//   alloc COUNT SIZE, free COUNT    allocates blocks; frees the newest blocks
//   map COUNT SIZE, unmap COUNT     anonymous mappings, of libend_to_end_mapper.so
//   churn THREADS MS                threads allocate and free blocks
//   fork FIFO                       a child reads commands from FIFO; answers its process id too
//   quit
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

extern "C" {
void* MapOne(std::size_t size);
int UnmapOne(void* mapping, std::size_t size);

/// The only function that allocates for "alloc". Tests look for its name. The barrier keeps it on
/// the stack.
__attribute__((noinline, visibility("default"))) void* StepAllocate(std::size_t size) {
  void* block = std::malloc(size);
  __asm__ volatile("" : "+r"(block) : : "memory");
  return block;  // NOLINT(clang-analyzer-unix.Malloc): the caller keeps it
}
}

namespace {

struct Mapping {
  void* address;
  std::size_t size;
};

void* blocks[1 << 17];
Mapping mappings[4096];
unsigned allocated = 0;
unsigned mapped = 0;

void Churn(unsigned threads, unsigned milliseconds) {
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t) {
    workers.emplace_back([=] {
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
      void* kept[64] = {};
      for (unsigned i = t; std::chrono::steady_clock::now() < end; ++i) {
        void*& block = kept[i * 2654435761U >> 26];
        std::free(block);
        block = StepAllocate(16 + i % 300);
        if (i % 16 == 0) block = std::realloc(block, 700);
      }
      for (void* block : kept) std::free(block);
    });
  }
  for (std::thread& worker : workers) worker.join();
}

/// One step of a command that repeats. Returns whether the command exists and succeeds.
bool Step(const std::string& verb, std::size_t size) {
  if (verb == "alloc") return (blocks[allocated++] = StepAllocate(size)) != nullptr;
  if (verb == "free") return std::free(blocks[--allocated]), true;
  if (verb == "map") {
    mappings[mapped++] = {MapOne(size), size};
    return mappings[mapped - 1].address != MAP_FAILED;
  }
  if (verb != "unmap") return false;
  --mapped;
  return UnmapOne(mappings[mapped].address, mappings[mapped].size) == 0;
}

}  // namespace

int main() {
  std::FILE* input = stdin;
  char line[512];
  while (std::fgets(line, sizeof line, input) != nullptr) {
    char verb[16] = {};
    char path[400] = {};
    unsigned count = 0;
    unsigned size = 0;
    bool good = true;
    if (std::sscanf(line, "fork %399s", path) == 1) {
      const pid_t child = fork();
      if (child == 0) {
        input = std::fopen(path, "r");
        if (input == nullptr) return 1;
        continue;
      }
      std::printf("%d\n", child);
    } else if (std::sscanf(line, "%15s %u %u", verb, &count, &size) < 2) {
      break;
    } else if (std::string(verb) == "churn") {
      Churn(count, size);
    } else {
      for (unsigned i = 0; i < count; ++i) good = Step(verb, size) && good;
    }
    std::puts(good ? "ok" : "wrong");
    std::fflush(stdout);
  }
  while (wait(nullptr) > 0) {
  }
  return 0;
}
