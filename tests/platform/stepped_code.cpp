// SPDX-License-Identifier: Apache-2.0
#include "tests/platform/stepped_code.h"

#include <alloca.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

// Prevents a call from becoming a jump, and hides the value from the optimizer.
#define KEEP(value) __asm__ volatile("" : "+r"(value) : : "memory")
#define FUNCTION __attribute__((noinline, noclone))

namespace {

int g_sink = 0;

FUNCTION int Leaf(int value) {
  KEEP(value);
  return value + 1;
}

FUNCTION int SavesRegisters(int a, int b, int c) {
  const int first = Leaf(a);
  const int second = Leaf(b);
  const int third = Leaf(c);
  return Leaf(first + second) + first * second + third;
}

FUNCTION int TailCall(int value) {
  return SavesRegisters(value, value + 1, value + 2);
}

FUNCTION int VariableFrame(std::size_t bytes) {
  auto* memory = static_cast<char*>(alloca(bytes));
  std::memset(memory, 1, bytes);
  const int value = SavesRegisters(memory[0], 2, 3);
  return Leaf(value) + memory[bytes - 1];
}

FUNCTION int LargeFrame() {
  volatile char memory[3 << 20];
  memory[0] = 1;
  return Leaf(memory[0]);
}

/// The function aligns the stack pointer at its start. Only a saved word contains the caller's
/// frame.
FUNCTION int AlignedFrame(int value) {
  alignas(128) volatile int memory[32];
  memory[value & 31] = SavesRegisters(value, 1, 2);
  return Leaf(memory[value & 31]);
}

FUNCTION int AlignedVariableFrame(std::size_t bytes) {
  alignas(64) volatile int memory[16];
  auto* more = static_cast<char*>(alloca(bytes));
  KEEP(more);
  memory[3] = Leaf(3);
  return SavesRegisters(memory[3], more[0], 1);
}

FUNCTION __attribute__((cold)) void Cold(int value) {
  g_sink += SavesRegisters(value, value, value);
}

/// The compiler moves the unlikely part elsewhere. That part has its own table entry.
FUNCTION int SplitFunction(int value) {
  std::string text(static_cast<std::size_t>(value), 'x');
  if (__builtin_expect(value > 20, 0)) {
    Cold(value);
    text += std::to_string(Leaf(value));
    Cold(static_cast<int>(text.size()));
  }
  return static_cast<int>(text.size());
}

FUNCTION int Recursion(int depth) {
  if (depth == 0) return Leaf(0);
  const int below = Recursion(depth - 1);
  return below + Leaf(depth);
}

void Calls() {
  g_sink += TailCall(1) + VariableFrame(100) + VariableFrame(5000) + LargeFrame() +
            AlignedFrame(3) + AlignedVariableFrame(200) + SplitFunction(5) + SplitFunction(30) +
            Recursion(20);
}

/// Each call goes through the linkage table. The first one goes through the dynamic linker.
void LibraryCalls() {
  char text[64];
  g_sink += std::snprintf(text, sizeof text, "%d %s %.3f", 12345, "text", 1.5);
  g_sink += static_cast<int>(std::strtod("1.25e3", nullptr) + static_cast<double>(labs(-5)));
  g_sink += static_cast<int>(strspn(text, "0123456789")) + std::atoi(text);
  for (std::size_t bytes : {1, 15, 31, 63, 64, 127, 128, 255, 300, 4000}) {
    std::vector<char> from(bytes, 'a');
    std::vector<char> to(bytes + 1);
    KEEP(bytes);
    std::memcpy(to.data(), from.data(), bytes);
    std::memmove(to.data() + 1, to.data(), bytes - 1);
    std::memset(from.data(), 'b', bytes);
    g_sink += static_cast<int>(std::strlen(to.data())) +
              std::memcmp(from.data(), to.data(), bytes) +
              (std::memchr(from.data(), 'z', bytes) != nullptr ? 1 : 0);
  }
  int numbers[20];
  for (int i = 0; i < 20; ++i) numbers[i] = (i * 7) % 20;
  std::qsort(numbers, 20, sizeof numbers[0], [](const void* a, const void* b) {
    return Leaf(*static_cast<const int*>(a)) - Leaf(*static_cast<const int*>(b));
  });
  std::free(std::realloc(std::calloc(10, 10), 100'000));
}

FUNCTION void ThrowBelow(int depth) {
  const std::string text(40, 'x');
  if (depth == 0) throw std::runtime_error(text);
  ThrowBelow(depth - 1);
  g_sink += static_cast<int>(text.size());
}

void Exceptions() {
  try {
    ThrowBelow(3);
  } catch (const std::exception& error) {
    g_sink += error.what()[0];
  }
}

void OnSignal(int number) {
  g_sink += Recursion(number % 4);
  if (number == SIGUSR1) raise(SIGUSR2);
}

void Signals() {
  static char memory[64 << 10];
  const stack_t stack = {memory, 0, sizeof memory};
  stack_t old_stack{};
  sigaltstack(&stack, &old_stack);
  for (const int flags : {0, SA_ONSTACK}) {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = flags;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_flags = SA_ONSTACK - flags;
    sigaction(SIGUSR2, &action, nullptr);
    raise(SIGUSR1);
    g_sink += SavesRegisters(1, 2, 3);
  }
  sigaltstack(&old_stack, nullptr);
}

void Vfork() {
  const pid_t child = vfork();
  if (child == 0) {
    g_sink += Recursion(2);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
}

int Cloned(void* /*argument*/) {
  g_sink += SavesRegisters(4, 5, 6);
  return 0;
}

void Clone() {
  alignas(16) static char stack[64 << 10];
  const pid_t child = clone(Cloned, stack + sizeof stack, CLONE_VM | SIGCHLD, nullptr);
  int status = 0;
  waitpid(child, &status, 0);
}

ucontext_t g_outside;
ucontext_t g_inside;

void Coroutine() {
  g_sink += Recursion(3);
  swapcontext(&g_inside, &g_outside);
  g_sink += SavesRegisters(7, 8, 9);
}

void Coroutines() {
  alignas(16) static char stack[64 << 10];
  getcontext(&g_inside);
  g_inside.uc_stack = {stack, 0, sizeof stack};
  g_inside.uc_link = &g_outside;
  makecontext(&g_inside, Coroutine, 0);
  swapcontext(&g_outside, &g_inside);
  g_sink += Leaf(1);
  swapcontext(&g_outside, &g_inside);
}

jmp_buf g_jump;

FUNCTION void JumpBelow(int depth) {
  if (depth == 0) longjmp(g_jump, 1);
  void (*below)(int) = JumpBelow;
  KEEP(below);
  below(depth - 1);
  ++g_sink;
}

void Jumps() {
  if (setjmp(g_jump) == 0) JumpBelow(3);
  g_sink += Leaf(2);
}

}  // namespace

const SteppedCode kSteppedCode[] = {
    {"calls", Calls},           {"library calls", LibraryCalls},
    {"exceptions", Exceptions}, {"signals", Signals},
    {"vfork", Vfork},           {"clone", Clone},
    {"jumps", Jumps},           {"coroutines", Coroutines},
};
const int kSteppedCodeCount = static_cast<int>(std::size(kSteppedCode));
