// SPDX-License-Identifier: Apache-2.0
// The registry of loaded libraries, and library names.
#include "linker/sharedlibs.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/elf_policy.h"
#include "tests/records/log_capture.h"

namespace lumora::linker {
namespace {

constexpr char kFixture[] = LINKER_FIXTURE_gnu;

/// Whether the last line says that there is no such library.
bool IsMissing(const std::string& name) {
  return !LogLines().empty() &&
         LogLines().back().find("] no sharelib " + name) != std::string::npos;
}

TEST(Registry, FindsByBasenameAndForgetsUnloadedLibraries) {
  EXPECT_FALSE(sharedLib("some/where.so"));
  EXPECT_TRUE(IsMissing("some/where.so"));
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
  EXPECT_TRUE(IsMissing(kFixture));
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
  for (const char* library : {"/system/lib64/libc.so", "app_process64"}) {
    EXPECT_TRUE(platform::AndroidAcceptsLibrary(library) && platform::LinuxAcceptsLibrary(library));
  }
  for (const char* library : {"libc.so.6", "libstdc++.so.6.0.30"}) {
    EXPECT_TRUE(!platform::AndroidAcceptsLibrary(library) &&
                platform::LinuxAcceptsLibrary(library));
  }
  for (const char* other : {"so", "/system/bin/app_process64", "libc.so.", "libc.so.6a", "a.7"}) {
    EXPECT_FALSE(platform::AndroidAcceptsLibrary(other) || platform::LinuxAcceptsLibrary(other));
  }
}

}  // namespace
}  // namespace lumora::linker
