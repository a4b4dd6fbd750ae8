// Hooking and unhooking while each of their requests for memory fails.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "plthooks/plthooks.h"
#include "tests/platform/platform_variable.h"
#include "tests/plthooks/support.h"
#include "tests/temporary_directory.h"
#include "tracker/HookTargets.h"

namespace {

/// This thread's requests until one fails; below 0, none will.
thread_local long requests_left = -1;

bool Fails() {
  return requests_left >= 0 && requests_left-- == 0;
}

}  // namespace

// Not inlined, so that the compiler sees a pair.
[[gnu::noinline]] void* operator new(std::size_t bytes) {
  void* memory = Fails() ? nullptr : std::malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*bytes*/) noexcept {
  std::free(memory);
}

extern "C" void* __real_mmap(void* at, std::size_t bytes, int rights, int flags, int file,
                             off_t offset);
// The linker sends the tracker's calls here.
extern "C" void* __wrap_mmap(void* at, std::size_t bytes, int rights, int flags, int file,
                             off_t offset) {
  if (!Fails()) return __real_mmap(at, bytes, rights, flags, file, offset);
  errno = ENOMEM;
  return MAP_FAILED;
}

namespace {

class Shortage : public testing::Test {
 protected:
  Shortage() {
    SetVariable("MEMLEAK_TRACKER_ROOT", directory_.Path("").c_str());
    SetVariable("MEMLEAK_TRACKER_LOG", directory_.Path("log").c_str());
  }

  /// Runs `work` with its first request failing, then with its second, until it makes no more, and
  /// `check` after each with what it returned; the last time it must have worked. Returns how many
  /// requests it made then.
  static long EachFails(const std::function<bool()>& work, const std::function<void(bool)>& check) {
    for (long request = 0;; ++request) {
      SCOPED_TRACE(request);
      requests_left = request;
      const bool worked = work();
      const bool none_failed = std::exchange(requests_left, -1) >= 0;
      check(worked);
      EXPECT_TRUE(worked || !none_failed);
      if (none_failed || HasFailure()) return request;
    }
  }

  void SetTargets(const std::string& functions) const {
    directory_.Write("properties",
                     "persist.sys.memleak.hookLib=libplthooks_full.so\n"
                     "persist.sys.memleak.hookFunc=" +
                         functions + "\n");
  }

  bool HasLogged(const std::string& text) const {
    return directory_.Read("log").find(text) != std::string::npos;
  }

  const TemporaryDirectory directory_;
};

TEST_F(Shortage, OfTheIndexHooksAndTargets) {
  using lumora::plthooks::plthooks_initialize;
  const auto initialize = [] {
    const bool ready = plthooks_initialize() == 0;
    EXPECT_TRUE(ready || errno == ENOMEM);
    return ready;
  };
  EXPECT_GT(EachFails(initialize, [](bool) {}), 0);
  const Library library;
  auto* map = library.find<decltype(calls_map)>("calls_map");
  void** const slots[] = {library.slot("mmap64"), library.slot("munmap")};
  void* const originals[] = {*slots[0], *slots[1]};
  const auto hooked = [&](int which) { return *slots[which] != originals[which]; };

  SetTargets("mmap64,munmap");
  ASSERT_TRUE(GetHookParams());
  // What fails leaves the program's calls as they are, and a later attempt works.
  const auto hook_again = [&](bool /*worked*/) {
    EXPECT_EQ(map(), 1);
    EXPECT_TRUE(hook_by_plt());
    EXPECT_TRUE(hooked(0) && hooked(1));
    EXPECT_EQ(map(), 1);
    // An attempt that failed halfway is on record, too.
    for (int attempts = 0; attempts < 2; ++attempts) unhook_by_plt();
    EXPECT_FALSE(hooked(0) || hooked(1));
  };
  EXPECT_GT(EachFails(hook_by_plt, hook_again), 0);
  EXPECT_TRUE(HasLogged("plt hook mmap64 error: Cannot allocate memory"));

  EXPECT_TRUE(hook_by_plt());
  const auto unhook = [] { return unhook_by_plt(), true; };
  EXPECT_EQ(EachFails(unhook, [&](bool) { EXPECT_FALSE(hooked(0) || hooked(1)); }), 0);

  // Without memory for the new targets the old ones stay.
  SetTargets("munmap");
  const auto unhook_old = [&](bool worked) {
    if (worked) return;
    EXPECT_TRUE(hook_by_plt());
    EXPECT_TRUE(hooked(0));
    unhook_by_plt();
  };
  EXPECT_GT(EachFails(GetHookParams, unhook_old), 0);
  EXPECT_TRUE(HasLogged("no memory for the hook targets"));
}

}  // namespace
