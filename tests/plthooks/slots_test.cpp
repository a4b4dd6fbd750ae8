// SPDX-License-Identifier: Apache-2.0
// Slots that cannot be hooked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/policies.h"
#include "tests/plthooks/support.h"
#include "tests/records/log_capture.h"

namespace lumora::plthooks {
namespace {

constexpr std::size_t kPage = 4096;

int hooked_calls = 0;

int Count(int value) {
  ++hooked_calls;
  return Previous(Count)(value);
}

void* PageOf(void* address) {
  return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(address) & ~(kPage - 1));
}

/// Replaces the page of `slot` by a mapping of a file with the same content. With PROT_READ the
/// engine cannot make the page writable.
void ReplacePage(void** slot, int rights) {
  const int file = memfd_create("slots", 0);
  ASSERT_EQ(pwrite(file, PageOf(slot), kPage, 0), static_cast<ssize_t>(kPage));
  const std::string name = "/proc/self/fd/" + std::to_string(file);
  const int again = open(name.c_str(), rights == PROT_READ ? O_RDONLY : O_RDWR);
  ASSERT_NE(mmap(PageOf(slot), kPage, rights, MAP_SHARED | MAP_FIXED, again, 0), MAP_FAILED);
  close(again);
  close(file);
}

struct Slots : testing::Test {
  Library library_;
  void** slot_ = library_.slot();
  void* const original_ = *slot_;
};

TEST_F(Slots, ThatPointIntoNoLibraryAreRefused) {
  auto* heap = std::malloc(64);
  ASSERT_EQ(unsafe_patch_relocation_address(slot_, heap), 0);
  EXPECT_EQ(library_.Hook(Count), 1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_NE(LogLines().back().find("] GOT entry does not point to a DSO:"), std::string::npos);
  EXPECT_EQ(*slot_, heap);
  std::free(heap);
}

TEST_F(Slots, ThatAreReadOnlyFailUntilTheyCanBeWritten) {
  ReplacePage(slot_, PROT_READ);
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(library_.Hook(Count), 1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(*slot_, original_);
  }
  ReplacePage(slot_, PROT_READ | PROT_WRITE);
  EXPECT_EQ(library_.Hook(Count), 0);
  EXPECT_EQ(library_.Call(1), 2);
  EXPECT_EQ(hooked_calls, 1);
  // A slot that cannot be restored ends the process: the hook's code may be unloaded next.
  const auto unhook = [this] {
    std::signal(SIGABRT, [](int /*signal*/) {
      std::fprintf(stderr, "%s\n", LogLines().back().c_str());
      _exit(3);
    });
    ReplacePage(slot_, PROT_READ);
    for (int hook = 0; hook < 3; ++hook) library_.Unhook(Count);
  };
  EXPECT_EXIT(unhook(), testing::ExitedWithCode(3), "7 .*. Unable to unhook GOT slot");
}

TEST_F(Slots, AreNotHookedWithoutAThreadKeyThatNeverAllocates) {
  if (platform::ThreadKeyNeverAllocates(1000)) GTEST_SKIP() << "no such key";
  pthread_key_t key = 0;
  while (platform::ThreadKeyNeverAllocates(key)) ASSERT_EQ(pthread_key_create(&key, nullptr), 0);
  EXPECT_EQ(library_.Hook(Count), 1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(*slot_, original_);
}

}  // namespace
}  // namespace lumora::plthooks
