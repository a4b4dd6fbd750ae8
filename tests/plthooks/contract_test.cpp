// SPDX-License-Identifier: Apache-2.0
// Calls through one, two and three hooks have the same arguments and results as without hooks.
//
// The hooks overwrite all registers that a called function may change, before and after they
// forward. So do the functions that the trampoline calls at the start and the end of a call.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "tests/plthooks/support.h"

namespace {
thread_local bool no_mappings = false;
}

extern "C" void* __real_mmap(void* at, std::size_t bytes, int rights, int flags, int file,
                             off_t offset);
// The linker redirects the engine's calls here.
extern "C" void* __wrap_mmap(void* at, std::size_t bytes, int rights, int flags, int file,
                             off_t offset) {
  return no_mappings ? MAP_FAILED : __real_mmap(at, bytes, rights, flags, file, offset);
}

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
template <int kLevel, typename Function>
struct Hook;

template <int kLevel, typename Result, typename... Arguments>
struct Hook<kLevel, Result(Arguments...)> {
  static Result Call(Arguments... arguments) {
    Clobber();
    order += std::to_string(kLevel);
    const Result result = Previous(Call)(arguments...);
    Clobber();
    return result;
  }
};

template <int kLevel>
struct Hook<kLevel, double(int, ...)> {
  static double Call(int count, ...) {
    std::va_list list;
    va_start(list, count);
    const Word word = va_arg(list, Word);
    const double number = va_arg(list, double);
    va_end(list);
    Clobber();
    order += std::to_string(kLevel);
    return Previous(Call)(count, word, number);
  }
};

struct Function {
  const char* name;
  void* hooks[3];
};

template <typename T>
Function Hooked(const char* name, T* /*function*/) {
  return {name,
          {reinterpret_cast<void*>(Hook<1, T>::Call), reinterpret_cast<void*>(Hook<2, T>::Call),
           reinterpret_cast<void*>(Hook<3, T>::Call)}};
}
#define HOOKED(name) Hooked(#name, static_cast<decltype(&(name))>(nullptr))

/// In the order of contract_call.
const Function kFunctions[kContractCalls] = {
    HOOKED(contract_many),    HOOKED(contract_variadic), HOOKED(contract_four),
    HOOKED(contract_complex), HOOKED(contract_large),
};

class Contract : public testing::TestWithParam<int> {
 protected:
  /// The arguments of this case's function, then its result.
  std::string Run() {
    notes_->clear();
    contract_call_(GetParam());
    return *notes_;
  }

  Library library_;
  std::string* notes_ = library_.find<std::string>("contract_notes");
  decltype(&contract_call) contract_call_ = library_.find<decltype(contract_call)>("contract_call");
};

TEST_P(Contract, IsKeptWithStackedHooks) {
  const Function& function = kFunctions[GetParam()];
  const std::string expected = Run();
  ASSERT_GT(expected.size(), 16U);
  void** slot = library_.slot(function.name);
  ASSERT_NE(slot, nullptr);
  void* const original = *slot;
  std::string expected_order;
  for (int level = 0; level < 3; ++level) {
    ASSERT_EQ(library_.Hook(function.hooks[level], function.name), 0);
    if (level == 0) {
      // Without memory for the hook stack, the call goes directly to the original function.
      std::thread([&] {
        no_mappings = true;
        EXPECT_EQ(Run(), expected);
      }).join();
      EXPECT_EQ(order, "");
      ClobberIn(slot);
    }
    expected_order.insert(0, std::to_string(level + 1));
    order.clear();
    EXPECT_EQ(Run(), expected) << level + 1 << " hooks";
    EXPECT_EQ(order, expected_order);
  }
  for (void* hook : function.hooks) EXPECT_EQ(library_.Unhook(hook, function.name), 0);
  EXPECT_EQ(*slot, original);
  EXPECT_EQ(Run(), expected);
}
INSTANTIATE_TEST_SUITE_P(All, Contract, testing::Range(0, kContractCalls),
                         [](const auto& each) { return kFunctions[each.param].name; });

void ForwardThrow(int value) {
  Previous(ForwardThrow)(value);
}

TEST(Exception, ThrownAcrossAHookedCallEndsTheProcess) {
  const Library library;
  auto* call = library.find<decltype(calls_catch)>("calls_catch");
  EXPECT_EQ(call(5), 1);
  ASSERT_EQ(library.Hook(ForwardThrow, "calls_throw"), 0);
  EXPECT_EXIT(call(5), testing::KilledBySignal(SIGABRT), "terminate called after throwing");
}

}  // namespace
