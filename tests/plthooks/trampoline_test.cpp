// SPDX-License-Identifier: Apache-2.0
// The hook stack, and the fatal errors for wrong use.
#include "plthooks/trampoline.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <csetjmp>
#include <thread>

#include "tests/plthooks/support.h"
#include "tests/records/log_capture.h"

namespace lumora::plthooks {
namespace {

int nested = 0;
int CountNested(int levels) {
  ++nested;
  return Previous(CountNested)(levels);
}

TEST(HookStack, IsAsDeepAsTheCalls) {
  const Library library;
  auto* nest = library.find<decltype(calls_nest)>("calls_nest");
  ASSERT_EQ(library.Hook(CountNested, "calls_deeper"), 0);
  const auto work = [nest] {
    // A page has room for 85 frames: tests just below, at and above the limit, and several pages.
    for (const int levels : {84, 85, 86, 1000, 170, 171}) {
      nested = 0;
      errno = EDOM;
      EXPECT_EQ(nest(levels), levels);
      EXPECT_EQ(errno, EDOM);
      EXPECT_EQ(nested, levels);
    }
  };
  work();
  std::thread(work).join();
}

std::uintptr_t return_address = 0;
std::uintptr_t stack_address = 0;
int AskForCaller(int value) {
  EXPECT_EQ(get_stack_address_for_previous(nullptr, &stack_address), 0);
  EXPECT_EQ(get_stack_address_for_previous(&return_address, nullptr), 0);
  errno = EDOM;
  EXPECT_EQ(get_stack_address_for_previous(&return_address, &stack_address), 1);
  EXPECT_EQ(errno, EDOM);
  return Previous(AskForCaller)(value);
}

TEST(HookStack, KnowsTheHookedCaller) {
  const Library library;
  ASSERT_EQ(library.Hook(AskForCaller), 0);
  EXPECT_EQ(library.Call(1), 2);
  Dl_info info = {};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(return_address), &info), 0);
  EXPECT_STREQ(info.dli_sname, "calls_call");
  EXPECT_EQ(stack_address, reinterpret_cast<std::uintptr_t>(*library.find<void*>("calls_frame")));

  LogLines().clear();
  errno = EDOM;
  EXPECT_EQ(get_stack_address_for_previous(&return_address, &stack_address), 0);
  EXPECT_EQ(errno, EDOM);
  EXPECT_TRUE(Logged("] outside of an active hook"));
}

std::jmp_buf target;
int JumpAway(int value) {
  if (value == 0) std::longjmp(target, 1);
  return Previous(JumpAway)(value);
}

TEST(HookStack, SurvivesAJumpAcrossACall) {
  const Library library;
  ASSERT_EQ(library.Hook(JumpAway), 0);
  if (setjmp(target) == 0) {
    library.Call(0);
    FAIL();
  }
  EXPECT_EQ(library.Call(1), 2);
  // The entry of the call that never returned is still on the stack.
  EXPECT_EQ(get_stack_address_for_previous(&return_address, &stack_address), 1);
}

int EndThread(int /*value*/) {
  pthread_exit(&return_address);
}

TEST(HookStack, ThreadMayEndWithinACall) {
  Library library;
  ASSERT_EQ(library.Hook(EndThread), 0);
  const auto work = [](void* hooked) -> void* {
    static_cast<Library*>(hooked)->Call(1);
    return nullptr;
  };
  pthread_t thread = 0;
  void* result = nullptr;
  ASSERT_EQ(pthread_create(&thread, nullptr, work, &library), 0);
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, &return_address);
}

void* wanted_hook = nullptr;
int AskWrongly(int value) {
  get_previous_from_hook(wanted_hook);
  return value;
}

TEST(Misuse, EndsTheProcessWithAMessage) {
  const Library library;
  ASSERT_EQ(library.Hook(AskWrongly), 0);
  const auto ask_within_a_call = [&library](void* hook) {
    wanted_hook = hook;
    library.Call(1);
  };
  const struct {
    std::function<void()> misuse;
    const char* message;
  } cases[] = {
      {[] { reinterpret_cast<void (*)()>(create_trampoline(77))(); },
       "7 .*plthooks/trampoline.cpp:[0-9]+. Run list for trampoline is empty"},
      {[] { AskWrongly(1); }, ". CALL_PREV call outside of an active hook"},
      {[&] { ask_within_a_call(library.address("calls_target")); },
       ". CALL_PREV call by original function.!"},
      {[&] { ask_within_a_call(reinterpret_cast<void*>(JumpAway)); },
       ". CALL_PREV call by an unknown hook. How did we get here."},
  };
  for (const auto& each : cases) {
    EXPECT_EXIT(ReportAbort(each.misuse), testing::ExitedWithCode(3), each.message);
  }
}

}  // namespace
}  // namespace lumora::plthooks
