// SPDX-License-Identifier: Apache-2.0
// A program whose stacks are hard to walk, for the sampler. Built without frame pointers, and the
// dynamic linker binds its calls at the first use. Leaf sends the sampler's signal.
#include <alloca.h>
#include <signal.h>
#include <ucontext.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>

// Prevents a call from becoming a jump, and hides the value from the optimizer.
#define KEEP(value) __asm__ volatile("" : "+r"(value) : : "memory")
#define FUNCTION __attribute__((noinline, noclone))

namespace {

FUNCTION int Leaf(int value) {
  raise(SIGPROF);
  KEEP(value);
  return value + 1;
}

FUNCTION int SavesRegisters(int a, int b, int c) {
  const int first = Leaf(a);
  const int second = Leaf(b);
  const int third = Leaf(c);
  return Leaf(first + second) + first * second + third;
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
  return Leaf(memory[0]) + memory[0];
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

int Frames() {
  return VariableFrame(100) + VariableFrame(5000) + LargeFrame() + AlignedFrame(3) +
         AlignedVariableFrame(200);
}

void OnSignal(int number) {
  int value = Leaf(number);
  if (number == SIGUSR1) value += raise(SIGUSR2);
  KEEP(value);
}

/// A handler on the thread's stack is interrupted by one on the alternate stack, and vice versa.
void Signals() {
  static char memory[128 << 10];
  const stack_t stack = {memory, 0, sizeof memory};
  sigaltstack(&stack, nullptr);
  for (const int flags : {0, SA_ONSTACK}) {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = flags;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_flags = SA_ONSTACK - flags;
    sigaction(SIGUSR2, &action, nullptr);
    raise(SIGUSR1);
  }
}

ucontext_t outside;
ucontext_t inside;

void Coroutine() {
  int value = Leaf(1);
  swapcontext(&inside, &outside);
  value += SavesRegisters(7, 8, 9);
  KEEP(value);
}

void Coroutines() {
  alignas(16) static char stack[128 << 10];
  getcontext(&inside);
  inside.uc_stack = {stack, 0, sizeof stack};
  inside.uc_link = &outside;
  makecontext(&inside, Coroutine, 0);
  swapcontext(&outside, &inside);
  swapcontext(&outside, &inside);
}

}  // namespace

int main() {
  for (int round = 0; round < 10; ++round) {
    int value = Frames();
    KEEP(value);
    Signals();
    Coroutines();
  }
}
