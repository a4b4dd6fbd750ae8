// SPDX-License-Identifier: Apache-2.0
// Stacks that are hard to capture, in a program that runs under the loader. The first argument
// names the case. Exit code 0 if the case passes.
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#define CHECK(condition)                                                                        \
  do {                                                                                          \
    if (!(condition)) {                                                                         \
      fprintf(stderr, "%s:%d: not so: %s (errno %d)\n", __FILE__, __LINE__, #condition, errno); \
      _exit(1);                                                                                 \
    }                                                                                           \
  } while (false)

#define NAMED_FUNCTION extern "C" __attribute__((noinline, visibility("default")))

using FramesOf = std::size_t (*)(void* block, std::uintptr_t* frames, std::size_t limit);
using Make = void* (*)(std::size_t);

extern "C" bool MapOnce();

/// The outermost of the compared frames.
NAMED_FUNCTION void* CallLibrary(Make make, std::size_t size) {
  void* block = make(size);
  __asm__ volatile("" : "+r"(block) : : "memory");
  return block;
}

namespace {

std::atomic<bool> stop{false};
constexpr std::size_t kPage = 4096;

FramesOf FindFramesOf() {
  void* tracker = dlopen("libmemleak_tracker.so", RTLD_NOW | RTLD_NOLOAD);
  CHECK(tracker != nullptr);
  return reinterpret_cast<FramesOf>(dlsym(tracker, "track_malloc_backtrace"));
}

/// The recorded stack of `block` starts with the expected frames. All but the last are in
/// `library`.
void CheckFrames(FramesOf frames_of, void* block, const std::vector<std::string>& expected,
                 const std::string& library) {
  std::uintptr_t frames[16] = {};
  CHECK(frames_of(block, frames, 16) >= expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    Dl_info info{};
    CHECK(dladdr(reinterpret_cast<void*>(frames[i]), &info) != 0 && info.dli_sname != nullptr);
    CHECK(info.dli_sname == expected[i]);
    CHECK(i + 1 == expected.size() || library == info.dli_fname);
  }
}

/// Loads, calls and unloads the libraries in a random order; every stack is checked. If
/// `frame_pointers`, only some libraries whose frames have them.
void LoadAndUnload(unsigned seed, bool frame_pointers) {
  const FramesOf frames_of = FindFramesOf();
  while (!stop) {
    const int number = frame_pointers ? "268"[rand_r(&seed) % 3] - '0' : rand_r(&seed) % 8 + 1;
    std::string library = LIBRARY_PREFIX;
    library += std::to_string(number) + ".so";
    void* handle = dlopen(library.c_str(), RTLD_NOW);
    CHECK(handle != nullptr);
    const auto make = reinterpret_cast<Make>(dlsym(handle, "Make"));
    std::vector<std::string> expected(static_cast<std::size_t>(number % 3 + 1), "Inner");
    expected.insert(expected.end(), {"Make", "CallLibrary"});
    for (int i = 0; i < 3; ++i) {
      void* block = CallLibrary(make, 100);
      // The walk along frame pointers ends in the large frames of this library.
      std::uintptr_t frames[4];
      if (frame_pointers && number == 8) {
        CHECK(frames_of(block, frames, 4) < 4);
      } else {
        CheckFrames(frames_of, block, expected, library);
      }
      free(block);
    }
    dlclose(handle);
  }
}

/// Threads load, call and unload libraries while forked children allocate.
int Libraries(int children, bool frame_pointers) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) threads.emplace_back(LoadAndUnload, i, frame_pointers);
  const FramesOf frames_of = FindFramesOf();
  for (int i = 0; i < 20; ++i) {
    usleep(100'000);
    if (i >= children) continue;
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      std::uintptr_t frame = 0;
      _exit(frames_of(CallLibrary(malloc, 100), &frame, 1) == 1 ? 0 : 1);
    }
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    CHECK(status == 0);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  return 0;
}

/// A stack between two pages that cannot be read.
class Stack {
 public:
  explicit Stack(std::size_t bytes) : bytes_((bytes + kPage - 1) / kPage * kPage) {
    void* memory = mmap(nullptr, bytes_ + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    CHECK(memory != MAP_FAILED);
    low_ = static_cast<unsigned char*>(memory) + kPage;
    CHECK(mprotect(low_, bytes_, PROT_READ | PROT_WRITE) == 0);
  }
  unsigned char* low() const { return low_; }
  unsigned char* top() const { return low_ + bytes_; }
  std::size_t bytes() const { return bytes_; }
  void Paint() const { memset(low_, kPaint, bytes_); }
  /// The number of bytes below `from` that have been written to.
  std::size_t Used(const void* from) const {
    const unsigned char* lowest = low_;
    while (*lowest == kPaint) ++lowest;
    return static_cast<std::size_t>(static_cast<const unsigned char*>(from) - lowest);
  }

 private:
  static constexpr unsigned char kPaint = 0xA5;
  const std::size_t bytes_;
  unsigned char* low_ = nullptr;
};

const void* allocated_from;
ucontext_t program;

/// Allocates in every size class with every function. Keeps some blocks, so that the tables grow.
void Allocate() {
  static int round = 0;
  static const std::size_t sizes[] = {8, 30, 40, 56, 72, 100, 1000, 5000, 300000};
  ++round;
  allocated_from = __builtin_frame_address(0);
  void* block = malloc(sizes[round % 9]);
  if (round % 3 == 0) block = realloc(block, sizes[round % 7] + 17);
  if (round % 2 == 0 || round % 9 >= 6) free(block);
}

/// Allocates on small stacks and checks that one allocation uses at most `bound` bytes of them.
int SmallStacks(std::size_t bound) {
  static std::size_t most = 0;  // getcontext() may return twice
  const auto note = [](const Stack& stack) { most = std::max(most, stack.Used(allocated_from)); };
  constexpr int kRounds = 1500;
  const Stack coroutine(std::max(kPage, bound + 512));
  for (int i = 0; i < kRounds; ++i) {
    coroutine.Paint();
    ucontext_t context;
    CHECK(getcontext(&context) == 0);
    context.uc_stack.ss_sp = coroutine.low();
    context.uc_stack.ss_size = coroutine.bytes();
    context.uc_link = &program;
    makecontext(&context, Allocate, 0);
    CHECK(swapcontext(&program, &context) == 0);
    note(coroutine);
  }
  // The size of the kernel's signal frame depends on the processor's registers.
  const auto frame = static_cast<std::size_t>(sysconf(_SC_MINSIGSTKSZ));
  const Stack handlers(frame + bound + 256);
  stack_t alternate{};
  alternate.ss_sp = handlers.low();
  alternate.ss_size = handlers.bytes();
  CHECK(sigaltstack(&alternate, nullptr) == 0);
  struct sigaction action {};
  action.sa_handler = [](int) { Allocate(); };
  action.sa_flags = SA_ONSTACK;
  CHECK(sigaction(SIGUSR1, &action, nullptr) == 0);
  for (int i = 0; i < kRounds; ++i) {
    handlers.Paint();
    raise(SIGUSR1);
    note(handlers);
  }
  printf("%zu bytes of stack for an allocation\n", most);
  fflush(stdout);
  CHECK(most <= bound);
  return 0;
}

}  // namespace

// Calls `function` with the stack pointer at `top` and `frame` in the frame pointer register. Code
// that is compiled without frame pointers may leave any value there.
extern "C" void CallOnStack(void (*function)(), void* top, void* frame);
#if defined(__aarch64__)
__asm__(
    ".text\n"
    ".globl CallOnStack\n"
    ".type CallOnStack, %function\n"
    "CallOnStack:\n"
    "  stp x29, x30, [sp, #-32]!\n"
    "  str x19, [sp, #16]\n"
    "  mov x19, sp\n"
    "  mov sp, x1\n"
    "  mov x29, x2\n"
    "  blr x0\n"
    "  mov sp, x19\n"
    "  ldr x19, [sp, #16]\n"
    "  ldp x29, x30, [sp], #32\n"
    "  ret\n"
    ".size CallOnStack, .-CallOnStack\n");
#else
__asm__(
    ".text\n"
    ".globl CallOnStack\n"
    ".type CallOnStack, @function\n"
    "CallOnStack:\n"
    "  push %rbp\n"
    "  push %rbx\n"
    "  mov %rsp, %rbx\n"
    "  mov %rsi, %rsp\n"
    "  mov %rdx, %rbp\n"
    "  call *%rdi\n"
    "  mov %rbx, %rsp\n"
    "  pop %rbx\n"
    "  pop %rbp\n"
    "  ret\n"
    ".size CallOnStack, .-CallOnStack\n");
#endif

namespace {

/// The frame pointer is the end of the stack or a few bytes before or after it. Then a smaller
/// stack replaces this one at the same place.
int StrayFramePointers() {
  const Stack stack(9 * kPage);
  for (const std::size_t pages : {8, 4, 2}) {
    unsigned char* const end = stack.low() + pages * kPage;
    CHECK(mprotect(end, stack.bytes() - pages * kPage, PROT_NONE) == 0);
    for (int i = 0; i < 400; ++i) {
      unsigned char* const top = end - 64 - i % 16 * 16;
      for (const std::ptrdiff_t offset : {-16, -8, 0, 8, 4000}) {
        CallOnStack([] { free(malloc(100)); }, top, end + offset);
        CallOnStack([] { CHECK(MapOnce()); }, top, end + offset);
      }
      free(malloc(100));
    }
  }
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string name = arguments[1];
  const int number = count > 2 ? atoi(arguments[2]) : 0;
  if (name == "libraries") return Libraries(number, count > 3);
  if (name == "small_stacks") return SmallStacks(static_cast<std::size_t>(number));
  if (name == "stray_frame_pointers") return StrayFramePointers();
  CHECK(!"a known case");
}
