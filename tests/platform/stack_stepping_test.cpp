// SPDX-License-Identifier: Apache-2.0
// Walks the stack at every instruction of code whose stacks are hard to walk. Compares the result
// with the C++ runtime's unwinder.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <ucontext.h>

#include "tests/platform/stack_comparison.h"
#include "tests/platform/stepped_code.h"

namespace {

constexpr greg_t kTrapFlag = 0x100;

/// A trap ends the process if its signal is blocked.
bool IsAboutToBlockSignals(const ucontext_t& context) {
  const greg_t* registers = context.uc_mcontext.gregs;
  const auto* code = reinterpret_cast<const unsigned char*>(registers[REG_RIP]);
  return code[0] == 0x0f && code[1] == 0x05 && registers[REG_RAX] == SYS_rt_sigprocmask;
}

void OnStep(int /*signal*/, siginfo_t* /*info*/, void* context) {
  auto& interrupted = *static_cast<ucontext_t*>(context);
  if (!comparison::IsInRuntime(
          static_cast<std::uint64_t>(interrupted.uc_mcontext.gregs[REG_RIP]))) {
    comparison::Compare();
  }
  if (IsAboutToBlockSignals(interrupted)) interrupted.uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
}

void SetTrapFlag(bool on) {
  const unsigned long long flags = __builtin_ia32_readeflags_u64();
  __builtin_ia32_writeeflags_u64(on ? flags | kTrapFlag : flags & ~kTrapFlag);
}

class Stepping : public testing::TestWithParam<int> {};

TEST_P(Stepping, MatchesTheRuntimeAtEveryInstruction) {
  comparison::Prepare();
  struct sigaction action {};
  action.sa_sigaction = OnStep;
  action.sa_flags = SA_SIGINFO;
  sigfillset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGTRAP, &action, nullptr), 0);
  SetTrapFlag(true);
  kSteppedCode[GetParam()].run();
  SetTrapFlag(false);
  const comparison::Totals totals = comparison::Result();
  EXPECT_GT(totals.places, 100U);
  EXPECT_EQ(totals.differing, 0U) << comparison::Differences();
  RecordProperty("places", std::to_string(totals.places));
}

INSTANTIATE_TEST_SUITE_P(Code, Stepping, testing::Range(0, kSteppedCodeCount));

}  // namespace
