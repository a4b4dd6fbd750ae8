// What the platform answers on a device: its pc widths, rules for libraries and for signals are
// fixed; program names and log lines come from the C library and liblog, whose part the test plays.
#include <android/log.h>
#include <async_safe/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "platform/elf_policy.h"
#include "platform/page_protection.h"
#include "platform/pc_policy.h"
#include "platform/program_name.h"
#include "platform/readable_stack.h"
#include "platform/signal_policy.h"
#include "platform/thread_keys.h"

namespace {

const char* g_program = nullptr;
std::string g_line;

}  // namespace

extern "C" const char* getprogname() {
  return g_program;
}

extern "C" int __android_log_write(int priority, const char* tag, const char* text) {
  g_line = std::to_string(priority) + " " + tag + ": " + text;
  errno = EPIPE;
  return static_cast<int>(g_line.size());
}

TEST(AndroidPlatform, FixedAnswers) {
  EXPECT_EQ(platform::AcceptedPcWidth().min_digits, 8);
  EXPECT_EQ(platform::AcceptedPcWidth().max_digits, 10);
  EXPECT_FALSE(platform::AcceptsLibrary("libc.so.6"));
  // Relative to the load bias, however large.
  EXPECT_EQ(platform::DynamicAddress(5, 0x2000, 0x1000), 0x3000U);
  EXPECT_TRUE(platform::ThreadKeyNeverAllocates(100));
  // Every library has full RELRO: a written page is read-only from then on, whatever it was.
  EXPECT_EQ(platform::ProtectionAfterWrite(&g_line, 4096), PROT_READ);
  // Frame pointers are trusted, but for those that no stack could hold.
  platform::ReadableStack stack(0x10000);
  EXPECT_TRUE(stack.Holds(0x20000, 16) && !stack.Holds(0x8, 16));
  EXPECT_FALSE(stack.Holds(0x10000 + (8 << 20), 16) || stack.Holds(~std::uint64_t{15}, 16));
}

TEST(AndroidPlatform, HandlersOpenEverySignal) {
  sigset_t interrupted;
  sigset_t mask;
  sigfillset(&interrupted);
  sigemptyset(&mask);
  platform::KeepBlocked(interrupted, &mask);
  EXPECT_EQ(sigismember(&mask, 44), 0);
}

TEST(AndroidPlatform, ProgramAndLog) {
  EXPECT_STREQ(platform::ProgramName(), "");
  g_program = "app_process64";
  EXPECT_STREQ(platform::ProgramName(), "app_process64");

  errno = EAGAIN;
  async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native", "%s %zu 0x%lx", "size",
                        std::size_t{24}, 0xABCUL);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(g_line, "6 MemLeak.Native: size 24 0xabc");
  async_safe_format_log(ANDROID_LOG_INFO, "MemLeak.Native", "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(g_line.size(), std::string("4 MemLeak.Native: ").size() + 1023);
}
