// The signal-safe log: its formatter against snprintf, and what reaches the log file.
#include <async_safe/log.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sstream>

#include "allocation_counter.h"
#include "platform/standin/log_format.h"
#include "platform_variable.h"
#include "tests/temporary_directory.h"

namespace {

// Formats that the compiler cannot check are the point of the table.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

template <typename... Arguments>
void ExpectLikeSnprintf(const char* format, Arguments... arguments) {
  for (const std::size_t limit : {std::size_t{200}, std::size_t{8}, std::size_t{1}}) {
    char expected[200];
    char actual[200];
    const int length = std::snprintf(expected, limit, format, arguments...);
    EXPECT_EQ(platform::FormatText(actual, limit, format, arguments...),
              static_cast<std::size_t>(length))
        << format;
    EXPECT_STREQ(actual, expected) << format << " with room for " << limit;
  }
}

TEST(LogFormat, AgreesWithSnprintf) {
  for (const char* format : {"%d", "[%-5d]", "[%05d]", "[%8.3d]", "%hhd", "%u", "[%08x]", "%X"}) {
    for (const int value : {0, 1, -42, 70000, INT_MAX, INT_MIN}) ExpectLikeSnprintf(format, value);
  }
  for (const char* format : {"%ld", "%lu", "%lx", "[%020ld]", "%llu", "%zx"}) {
    for (const long value : {0L, -1L, LONG_MAX, LONG_MIN}) ExpectLikeSnprintf(format, value);
  }
  for (const char* format : {"%s", "[%12s]", "[%-12s]", "[%6.2s]", "%s%%"}) {
    for (const char* value : {"", "word", "a longer text"}) ExpectLikeSnprintf(format, value);
  }
  ExpectLikeSnprintf("[%*d|%-*s|%.*s|%c]", 7, -3, 5, "ab", 2, "cdef", 'c');
  ExpectLikeSnprintf("Pointer %p of %s is %zu (%d%%)", &errno, "x", sizeof(int), 50);
}

TEST(Log, WritesWholeLinesKeepsErrnoAndAllocatesNothing) {
  const TemporaryDirectory directory;
  const std::string text(3000, 'x');
  int length = 0;
  for (const std::string& destination :
       {directory.Path("missing/log"), std::string(5000, 'x'), directory.Path("log.%p")}) {
    SetVariable("MEMLEAK_TRACKER_LOG", destination.c_str());
    errno = EOWNERDEAD;
    EXPECT_EQ(AllocationsDuring([&] {
                length =
                    async_safe_format_log(ANDROID_LOG_INFO, "Tag", "the %s is %d", "answer", 42);
                async_safe_format_log(ANDROID_LOG_ERROR, "Tag", "%s", text.c_str());
                async_safe_format_log(ANDROID_LOG_ERROR, "Tag", "with its own newline\n");
              }),
              0);
    EXPECT_EQ(errno, EOWNERDEAD);
  }
  SetVariable("MEMLEAK_TRACKER_LOG", nullptr);
  testing::internal::CaptureStderr();
  EXPECT_GT(async_safe_format_log(ANDROID_LOG_ERROR, "Tag", "unheard"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  const std::string log = directory.Read("log." + std::to_string(getpid()));
  EXPECT_EQ(static_cast<std::size_t>(length), log.find('\n') + 1);
  const std::string who =
      " " + std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid));
  std::istringstream lines(log);
  std::string line;
  for (const std::string& rest : {std::string(" I Tag: the answer is 42"), " E Tag: " + text,
                                  std::string(" E Tag: with its own newline")}) {
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_NEAR(std::stod(line), static_cast<double>(time(nullptr)), 60);
    EXPECT_EQ(line.substr(line.find(' ')), (who + rest).substr(0, 1022 - line.find(' ')));
  }
  EXPECT_EQ(lines.peek(), EOF);
}

TEST(Log, ReaderThatIsGoneEndsNoProgram) {
  SetVariable("MEMLEAK_TRACKER_LOG", "stderr");
  const int saved = dup(STDERR_FILENO);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  dup2(ends[1], STDERR_FILENO);
  async_safe_format_log(ANDROID_LOG_INFO, "Tag", "SIGPIPE would end this process");
  // One that the program held back itself is still the program's.
  sigset_t pipe_signal;
  sigset_t waiting;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
  for (const int own : {0, 1}) {
    if (own != 0) raise(SIGPIPE);
    async_safe_format_log(ANDROID_LOG_INFO, "Tag", "blocked");
    sigpending(&waiting);
    EXPECT_EQ(sigismember(&waiting, SIGPIPE), own);
  }
  int taken = 0;
  sigwait(&pipe_signal, &taken);
  pthread_sigmask(SIG_UNBLOCK, &pipe_signal, nullptr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(ends[1]);
}

}  // namespace
