// Trampolines as they lie in memory, the hook stack, and the ends of a process that misuses it.
#include "plthooks/trampoline.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "tests/plthooks/support.h"
#include "tests/records/log_capture.h"

namespace lumora::plthooks {
namespace {

std::uintptr_t Create(std::uint64_t id = 77) {
  return reinterpret_cast<std::uintptr_t>(create_trampoline(id));
}

constexpr std::size_t kCodeBytes = arch::kTrampolineCodeBytes;

TEST(Copy, IsTheTemplateAndItsThreeWords) {
  const std::uintptr_t code = Create(0x1122334455667788);
  ASSERT_NE(code, 0U);
  EXPECT_EQ(std::memcmp(reinterpret_cast<void*>(code), arch_trampoline_code, kCodeBytes), 0);
  std::uint64_t words[3];
  std::memcpy(words, reinterpret_cast<void*>(code + kCodeBytes), sizeof(words));
  EXPECT_EQ(words[0], reinterpret_cast<std::uint64_t>(trampoline::push_hook_stack));
  EXPECT_EQ(words[1], reinterpret_cast<std::uint64_t>(trampoline::pop_hook_stack));
  EXPECT_EQ(words[2], 0x1122334455667788U);
}

#if defined(__aarch64__)
/// The instructions at `code`, "; " behind each; addresses count from its start.
std::string Disassemble(std::uintptr_t code) {
  const std::string file = testing::TempDir() + "trampoline." + std::to_string(getpid());
  std::ofstream(file).write(reinterpret_cast<const char*>(code), kCodeBytes);
  const std::string command = OBJDUMP " -D -b binary --no-show-raw-insn -m aarch64 " + file;
  FILE* output = popen(command.c_str(), "r");
  std::string text;
  char line[256];
  while (output != nullptr && std::fgets(line, sizeof(line), output) != nullptr) {
    const char* colon = std::strstr(line, ":\t");
    if (colon == nullptr) continue;
    text += std::string(colon + 2, std::strcspn(colon + 2, "\n")) + "; ";
  }
  EXPECT_EQ(pclose(output), 0) << command;
  std::remove(file.c_str());
  std::replace(text.begin(), text.end(), '\t', ' ');
  return text;
}

TEST(Copy, HasThirtyNineInstructions) {
  EXPECT_EQ(Disassemble(Create()),
            "sub sp, sp, #0xd0; stp q0, q1, [sp]; stp q2, q3, [sp, #32]; stp q4, q5, [sp, #64]; "
            "stp q6, q7, [sp, #96]; stp x0, x1, [sp, #128]; stp x2, x3, [sp, #144]; "
            "stp x4, x5, [sp, #160]; stp x6, x7, [sp, #176]; str x8, [sp, #192]; "
            "ldr x0, 0xac; mov x1, x30; mov x2, x29; ldr x16, 0x9c; blr x16; mov x16, x0; "
            "ldr x8, [sp, #192]; ldp x6, x7, [sp, #176]; ldp x4, x5, [sp, #160]; "
            "ldp x2, x3, [sp, #144]; ldp x0, x1, [sp, #128]; ldp q6, q7, [sp, #96]; "
            "ldp q4, q5, [sp, #64]; ldp q2, q3, [sp, #32]; ldp q0, q1, [sp]; add sp, sp, #0xd0; "
            "blr x16; sub sp, sp, #0x50; stp x0, x1, [sp]; stp q0, q1, [sp, #16]; "
            "stp q2, q3, [sp, #48]; ldr x16, 0xa4; blr x16; mov x30, x0; ldp q2, q3, [sp, #48]; "
            "ldp q0, q1, [sp, #16]; ldp x0, x1, [sp]; add sp, sp, #0x50; ret; ");
}
#endif

TEST(Copies, FillBlocks) {
  // 22 trampolines of 180 bytes on aarch64, 10 of 400 on x86-64.
  constexpr std::uintptr_t kInBlock = 4096 / trampoline::kTrampolineBytes;
  for (int block = 0; block < 2; ++block) {
    const std::uintptr_t first = Create();
    EXPECT_EQ(first % 4096, 0U);
    for (std::uintptr_t at = 1; at < kInBlock; ++at) {
      EXPECT_EQ(Create(), first + at * trampoline::kTrampolineBytes);
    }
  }
}

int nested = 0;
int CountNested(int depth) {
  ++nested;
  return Previous(CountNested)(depth);
}

TEST(HookStack, IsAsDeepAsTheCalls) {
  const Library library;
  auto* nest = library.find<decltype(calls_nest)>("calls_nest");
  ASSERT_EQ(library.Hook(CountNested, "calls_deeper"), 0);
  const auto work = [nest] {
    // A page takes 85 frames: just below, at and above the limit, and several pages.
    for (const int depth : {84, 85, 86, 1000, 170, 171}) {
      nested = 0;
      errno = EDOM;
      EXPECT_EQ(nest(depth), depth);
      EXPECT_EQ(errno, EDOM);
      EXPECT_EQ(nested, depth);
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
  // The note of the call that never returned is still there.
  EXPECT_EQ(get_stack_address_for_previous(&return_address, &stack_address), 1);
}

int EndThread(int /*value*/) {
  pthread_exit(&return_address);
}

TEST(HookStack, LetsAThreadEndWithinACall) {
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

TEST(Misuse, EndsTheProcessWithItsMessage) {
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
      {[] { reinterpret_cast<void (*)()>(Create())(); },
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
