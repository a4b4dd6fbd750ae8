// SPDX-License-Identifier: Apache-2.0
// The async-signal-safe log and the properties on Linux.
#include <async_safe/log.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <random>
#include <sstream>

#include "platform/android_api/log_format.h"
#include "platform_variable.h"
#include "tests/temporary_directory.h"

static std::atomic<long> allocations{0};

// A sanitizer's malloc cannot be replaced.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* __libc_malloc(std::size_t size);

extern "C" void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
#endif

namespace {

/// Runs `run`, which must allocate nothing and keep errno.
template <typename Function>
void RunSafely(const Function& run) {
  errno = EOWNERDEAD;
  const long before = allocations;
  run();
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(errno, EOWNERDEAD);
}

#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

template <typename... Arguments>
void ExpectLikeSnprintf(std::size_t limit, const std::string& format, Arguments... arguments) {
  char expected[200];
  char actual[200];
  const int length = std::snprintf(expected, limit, format.c_str(), arguments...);
  ASSERT_EQ(platform::FormatText(actual, limit, format.c_str(), arguments...),
            static_cast<std::size_t>(length))
      << format;
  ASSERT_STREQ(actual, expected) << format << " cut to " << limit;
}

TEST(LogFormat, AgreesWithSnprintf) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 20000; ++i) {
    const std::size_t limit = random() % 60 + 1;
    const std::string width = random() % 2 == 0 ? "" : std::to_string(random() % 25 + 1);
    const std::string zeros = random() % 2 == 0 ? "" : "0";
    const char types[] = {'d', 'u', 'x'};
    const std::string type(1, types[random() % 3]);
    // All magnitudes and both signs.
    const auto number =
        static_cast<long>(random() >> (random() % 64)) * (random() % 2 == 0 ? 1 : -1);
    const std::string text(random() % 30, 'x');
    const int precision = static_cast<int>(random() % 20);
    ExpectLikeSnprintf(limit, "[%" + zeros + width + type + "]", static_cast<int>(number));
    ExpectLikeSnprintf(limit, "[%" + zeros + width + "l" + type + "]", number);
    ExpectLikeSnprintf(limit, "%z" + type + "%%%c%ll" + type, number, 'c', 0L);
    ExpectLikeSnprintf(limit, "%p|%" + width + "s", &random, text.c_str());
    ExpectLikeSnprintf(limit, "%" + width + "." + std::to_string(precision) + "s", text.c_str());
    ExpectLikeSnprintf(limit, "%" + width + ".*s|%u", precision, text.c_str(), 7U);
  }
}

TEST(Log, WritesWholeLinesKeepsErrnoAndAllocatesNothing) {
  const TemporaryDirectory directory;
  const std::string text(3000, 'x');
  int length = 0;
  for (const std::string& destination :
       {directory.Path("missing/log"), std::string(5000, 'x'), directory.Path("log.%p")}) {
    SetVariable("MEMLEAK_TRACKER_LOG", destination.c_str());
    RunSafely([&] {
      length = async_safe_format_log(ANDROID_LOG_INFO, "Tag", "the %s is %d", "answer", 42);
      async_safe_format_log(ANDROID_LOG_ERROR, "Tag", "%s", text.c_str());
      async_safe_format_log(ANDROID_LOG_ERROR, "Tag", "with its own newline\n");
    });
  }
  const std::string log = directory.Read("log." + std::to_string(getpid()));
  EXPECT_EQ(static_cast<std::size_t>(length), log.find('\n') + 1);
  const std::string sender =
      " " + std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid));
  std::istringstream lines(log);
  std::string line;
  for (const std::string& rest : {std::string(" I Tag: the answer is 42"), " E Tag: " + text,
                                  std::string(" E Tag: with its own newline")}) {
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_NEAR(std::stod(line), static_cast<double>(time(nullptr)), 60);
    EXPECT_EQ(line.substr(line.find(' ')), (sender + rest).substr(0, 1022 - line.find(' ')));
  }
  EXPECT_EQ(lines.peek(), EOF);
}

TEST(Log, RaisesNoSigpipe) {
  SetVariable("MEMLEAK_TRACKER_LOG", "stderr");
  const int saved = dup(STDERR_FILENO);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  dup2(ends[1], STDERR_FILENO);
  async_safe_format_log(ANDROID_LOG_INFO, "Tag", "SIGPIPE would kill this process");
  // A pending signal of the program stays pending.
  sigset_t pipe_signal;
  sigset_t pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
  for (const int own : {0, 1}) {
    if (own != 0) raise(SIGPIPE);
    async_safe_format_log(ANDROID_LOG_INFO, "Tag", "blocked");
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), own);
  }
  int taken = 0;
  sigwait(&pipe_signal, &taken);
  pthread_sigmask(SIG_UNBLOCK, &pipe_signal, nullptr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(ends[1]);
}

std::string Get(const char* name) {
  char value[PROP_VALUE_MAX];
  RunSafely([&] { __system_property_get(name, value); });
  return value;
}

// The fuzz target for properties tests the parser.
TEST(Properties, SharedFileIsUsedIfTheRootHasNone) {
  const TemporaryDirectory directory;
  SetVariable("MEMLEAK_TRACKER_PROPERTIES", directory.Write("shared", "a=1\nq=2\n").c_str());
  for (const std::string& root : {directory.Path(""), directory.Path("missing"),
                                  directory.Path("shared"), std::string(5000, 'x')}) {
    SetVariable("MEMLEAK_TRACKER_ROOT", root.c_str());
    EXPECT_EQ(Get("q"), "2") << root;
  }
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("").c_str());
  directory.Write("properties", "a=first\na=last");
  EXPECT_EQ(Get("a"), "last");
  EXPECT_EQ(Get("q"), "");
}

}  // namespace
