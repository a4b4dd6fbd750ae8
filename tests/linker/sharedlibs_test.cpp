// SPDX-License-Identifier: Apache-2.0
// The registry of loaded libraries, library names, and fatal errors of the locks.
#include "linker/sharedlibs.h"

#include <android-base/logging.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ios>
#include <string>

#include "linker/log_assert.h"
#include "linker/rwlock.h"
#include "platform/elf_policy.h"
#include "tests/records/log_capture.h"

namespace lumora::linker {
namespace {

constexpr char kFixture[] = LINKER_FIXTURE_gnu;

bool LastLineEndsIn(const std::string& text) {
  if (LogLines().empty()) return false;
  const std::string& line = LogLines().back();
  return line.size() >= text.size() && line.substr(line.size() - text.size()) == text;
}

TEST(Registry, FindsByBasenameAndForgetsUnloadedLibraries) {
  EXPECT_FALSE(sharedLib("some/where.so"));
  EXPECT_TRUE(LastLineEndsIn("] no sharelib some/where.so"));
  EXPECT_NE(LogLines().back().find("linker/sharedlibs.cpp:"), std::string::npos);
  EXPECT_EQ(LogLines().back().substr(0, 2), "6 ");

  void* handle = dlopen(kFixture, RTLD_NOW);
  ASSERT_NE(handle, nullptr);
  linker_set_enabled(0);
  EXPECT_EQ(linker_initialize(), 1);
  EXPECT_FALSE(sharedLib(kFixture));
  linker_set_enabled(7);
  EXPECT_EQ(linker_initialize(), 0);
  EXPECT_TRUE(sharedLib("liblinker_fixture_gnu.so"));
  const elfSharedLibData c_library = sharedLib("/elsewhere/libc.so.6");
  EXPECT_TRUE(c_library);
  EXPECT_NE(c_library.find_symbol_by_name("getppid"), nullptr);

  dlclose(handle);
  LogLines().clear();
  EXPECT_FALSE(sharedLib(kFixture));
  EXPECT_TRUE(LogLines().empty());
  EXPECT_FALSE(sharedLib(kFixture));
  EXPECT_TRUE(LastLineEndsIn(std::string("] no sharelib ") + kFixture));

  handle = dlopen(kFixture, RTLD_NOW);
  EXPECT_EQ(refresh_shared_libs(), 0);
  EXPECT_TRUE(sharedLib(kFixture));
  dlclose(handle);
}

TEST(Names, BasenamesAndAcceptedLibraries) {
  const char* paths[][2] = {
      {"", "."}, {nullptr, "."}, {"///", "/"}, {"a/b//", "b"}, {"/x/liba.so", "liba.so"}};
  for (const auto& [path, expected] : paths) EXPECT_STREQ(plt_basename(path), expected);
  errno = 0;
  EXPECT_EQ(plt_basename(("dir/" + std::string(1024, 'n')).c_str()), nullptr);
  EXPECT_EQ(errno, ENAMETOOLONG);
  struct {
    const char* name;
    bool android, linux_too;
  } const cases[] = {
      {"so", false, false},          {"/system/lib64/libc.so", true, true},
      {"app_process64", true, true}, {"/system/bin/app_process64", false, false},
      {"libc.so.6", false, true},    {"libstdc++.so.6.0.30", false, true},
      {"libc.so.", false, false},    {"libc.so.6a", false, false},
      {"program.7", false, false},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(platform::AndroidAcceptsLibrary(one.name), one.android) << one.name;
    EXPECT_EQ(platform::LinuxAcceptsLibrary(one.name), one.linux_too) << one.name;
  }
}

/// A handler for SIGABRT: prints the last log line and ends the process.
void TellAndExit(int /*signal*/) {
  std::fprintf(stderr, "%s\n", LogLines().back().c_str());
  _exit(3);
}

TEST(FatalErrors, LogTheirReason) {
  const auto die = [](void (*work)()) {
    std::signal(SIGABRT, TellAndExit);
    work();
  };
  EXPECT_EXIT(die([] { log_assert("%s of %d", "failure", 7); }), testing::ExitedWithCode(3),
              "7 linkerlib: failure of 7");
  EXPECT_EXIT(die([] { LOG(FATAL) << "0x" << std::hex << std::uintptr_t{0xABC} << " the end"; }),
              testing::ExitedWithCode(3), "7 .*sharedlibs_test.cpp:[0-9]+. 0xabc the end");
#if !defined(__SANITIZE_THREAD__)
  // A thread that already holds the lock gets an error. ThreadSanitizer reports it first.
  EXPECT_EXIT(die([] {
                static pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
                const WriteLock outer(&lock);
                const ReadLock inner(&lock);
              }),
              testing::ExitedWithCode(3), "7 linkerlib: pthread_rwlock_rdlock returned Resource");
#endif
}

}  // namespace
}  // namespace lumora::linker
