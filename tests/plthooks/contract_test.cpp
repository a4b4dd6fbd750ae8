// SPDX-License-Identifier: Apache-2.0
// Calls through one, two and three hooks have the same arguments and results as without hooks.
//
// The hooks overwrite all registers that a called function may change, before and after they
// forward. So do the functions that the trampoline calls at the start and the end of a call.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "tests/plthooks/support.h"

namespace {

using lumora::plthooks::trampoline::pop_hook_stack;
using lumora::plthooks::trampoline::push_hook_stack;

__attribute__((always_inline)) inline void Clobber() {
#if defined(__x86_64__)
#define ONES(n) "pcmpeqd %%xmm" #n ", %%xmm" #n "\n\t"
  __asm__ volatile(
      ONES(0) ONES(1) ONES(2) ONES(3) ONES(4) ONES(5) ONES(6) ONES(7) ONES(8) ONES(9) ONES(10)
          ONES(11) ONES(12) ONES(13) ONES(14) ONES(15)
      "movq $-1, %%rax; movq %%rax, %%rcx; movq %%rax, %%rdx; movq %%rax, %%rsi\n\t"
      "movq %%rax, %%rdi; movq %%rax, %%r8; movq %%rax, %%r9; movq %%rax, %%r10\n\t"
      "movq %%rax, %%r11\n\t" ::
          : "rax", "rcx", "rdx", "rsi", "rdi", "r8", "r9", "r10", "r11", "cc", "memory", "xmm0",
            "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10",
            "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
#else
#define ONES(n) "movi v" #n ".16b, #255\n\tmov x" #n ", #-1\n\t"
  __asm__ volatile(ONES(0) ONES(1) ONES(2) ONES(3) ONES(4) ONES(5) ONES(6) ONES(7) ONES(16)
                       ONES(17) "mov x8, #-1\n\tmov x9, #-1\n\tmov x10, #-1\n\tmov x11, #-1\n\t" ::
                           : "x0", "x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10",
                             "x11", "x16", "x17", "cc", "memory", "v0", "v1", "v2", "v3", "v4",
                             "v5", "v6", "v7", "v16", "v17");
#endif
#undef ONES
}

void* ClobberingBegin(std::uint64_t id, void* return_address, void* stack_address) {
  Clobber();
  void* hook = push_hook_stack(id, return_address, stack_address);
  Clobber();
  return hook;
}

void* ClobberingEnd() {
  Clobber();
  void* return_address = pop_hook_stack();
  Clobber();
  return return_address;
}

/// Makes the trampoline in `slot` use the two functions above.
void ClobberIn(void** slot) {
  auto* data = static_cast<unsigned char*>(*slot) + arch::kTrampolineCodeBytes;
  void* const functions[] = {reinterpret_cast<void*>(ClobberingBegin),
                             reinterpret_cast<void*>(ClobberingEnd)};
  std::memcpy(data, functions, sizeof(functions));
}

std::string order;

/// A hook that forwards.
template <int kLevel, typename Result, typename... Arguments>
Result Relay(Arguments... arguments) {
  Clobber();
  order += std::to_string(kLevel);
  const Result result = Previous(Relay<kLevel, Result, Arguments...>)(arguments...);
  Clobber();
  return result;
}

template <int kLevel, typename Result, typename... Arguments>
void Hook(const Library& library, Result (* /*function*/)(Arguments...), const char* name) {
  ASSERT_EQ(library.Hook(Relay<kLevel, Result, Arguments...>, name), 0);
  if (kLevel == 1) ClobberIn(library.slot(name));
}

/// Adds a hook to all functions and calls them.
template <int kLevel>
void HookAll(const Library& library, const std::string& expected_order) {
  Hook<kLevel>(library, static_cast<Contract<Pair>*>(nullptr), "contract_pair");
  Hook<kLevel>(library, static_cast<Contract<Four>*>(nullptr), "contract_four");
  Hook<kLevel>(library, static_cast<Contract<Large>*>(nullptr), "contract_large");
  auto* call = library.find<decltype(contract_call)>("contract_call");
  order.clear();
  EXPECT_EQ(call(), 0) << kLevel << " hooks";
  EXPECT_EQ(order, expected_order + expected_order + expected_order);
}

TEST(Contract, IsKeptWithStackedHooks) {
  const Library library;
  HookAll<1>(library, "1");
  HookAll<2>(library, "21");
  HookAll<3>(library, "321");
}

const Library* nesting;
int nested = 0;
int Nest(int depth) {
  ++nested;
  if (depth > 1) nesting->Call(depth - 1);
  return Previous(Nest)(depth);
}

TEST(HookStack, IsAsDeepAsTheCalls) {
  const Library library;
  nesting = &library;
  ASSERT_EQ(library.Hook(Nest), 0);
  // A page has room for 85 frames: tests just below, at and above the limit, and several pages.
  for (const int depth : {84, 85, 86, 1000, 170, 171}) {
    nested = 0;
    EXPECT_EQ(library.Call(depth), depth + 1);
    EXPECT_EQ(nested, depth);
  }
}

}  // namespace
