// SPDX-License-Identifier: Apache-2.0
// Names, slots and their addresses: what is hooked, what is refused, and the rights of pages.
#include "plthooks/plthooks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "linker/sharedlibs.h"
#include "platform/policies.h"
#include "tests/plthooks/support.h"
#include "tests/records/log_capture.h"

namespace lumora::plthooks {
namespace {

constexpr std::size_t kPage = 4096;

template <typename T>
void* Pointer(T* function) {
  return reinterpret_cast<void*>(function);
}

std::string order;

int First(int value) {
  order += '1';
  return Previous(First)(value);
}
int Second(int value) {
  order += '2';
  return Previous(Second)(value);
}
void* FirstMap(void* at, std::size_t bytes, int rights, int flags, int file, std::int64_t offset) {
  order += 'm';
  return Previous(FirstMap)(at, bytes, rights, flags, file, offset);
}

void* PageOf(void* address) {
  return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(address) & ~(kPage - 1));
}

plt_hook_spec Spec(const char* function, void* hook) {
  return {function, nullptr, hook, false, 0, nullptr};
}

class Hooking : public testing::Test {
 protected:
  int Call(int value) {
    order.clear();
    return library_.Call(value);
  }

  Library library_;
  void** slot_ = library_.slot();
  void* original_ = library_.address("calls_target");
};

TEST_F(Hooking, CountsFailuresAndSkipsFunctionsThatAreNotImported) {
  plt_hook_spec specs[] = {Spec("calls_target", Pointer(First)), Spec("getppid", Pointer(First)),
                           Spec("calls_other", nullptr), Spec(nullptr, Pointer(First)),
                           Spec("calls_other", Pointer(Second))};
  EXPECT_EQ(hook_single_lib(library_.name(), specs, std::size(specs)), 2);
  const std::uint32_t hooked[] = {1, 0, 0, 0, 1};
  for (std::size_t at = 0; at < std::size(specs); ++at) {
    EXPECT_EQ(specs[at].hook_result, hooked[at]) << at;
  }
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(library_.Hook(First, "getppid"), 1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(LogLines().empty());
  EXPECT_EQ(unhook_single_lib(library_.name(), specs, 2), 0);
  EXPECT_EQ(specs[0].hook_result, 2U);

  // The original function cannot be unhooked.
  EXPECT_EQ(library_.Hook(First), 0);
  plt_hook_spec original = Spec("calls_target", original_);
  EXPECT_EQ(unhook_single_lib(library_.name(), &original, 1), 1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(library_.Unhook(Second), 1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(hook_plt_method("libnone.so", "calls_target", Pointer(First)), 1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(Logged("] no sharelib libnone.so"));
}

TEST_F(Hooking, FindsSlotsByTheAddressInTheDefiningLibrary) {
  plt_hook_spec spec = Spec("calls_other", Pointer(First));
  spec.lib_name = "libplthooks_leaf.so";
  EXPECT_EQ(hook_single_lib(library_.name(), &spec, 1), 0);
  EXPECT_EQ(spec.hook_result, 1U);
  EXPECT_EQ(spec.target, library_.address("calls_other"));
  // The slot no longer contains that address. No slot is found, which is not a failure.
  spec.hook_fn = Pointer(Second);
  EXPECT_EQ(hook_single_lib(library_.name(), &spec, 1), 0);
  EXPECT_EQ(spec.hook_result, 1U);
  EXPECT_EQ(library_.Unhook(First, "calls_other"), 0);

  // This library does not define the function, so the engine finds the slot by name.
  plt_hook_spec elsewhere = Spec("calls_target", Pointer(First));
  elsewhere.lib_name = "libc.so.6";
  LogLines().clear();
  EXPECT_EQ(hook_single_lib(library_.name(), &elsewhere, 1), 0);
  EXPECT_EQ(elsewhere.hook_result, 1U);
}

TEST_F(Hooking, AcceptsOtherNamesOfTheFunction) {
  // dladdr returns one name for both functions. Hooking by either name works repeatedly.
  for (int round = 0; round < 2; ++round) {
    for (const char* function : {"calls_target", "calls_same"}) {
      EXPECT_EQ(library_.Hook(First, function), 0) << testing::PrintToString(LogLines());
    }
    EXPECT_EQ(library_.find<decltype(calls_call_same)>("calls_call_same")(Call(1)), 3);
    EXPECT_EQ(order, "11");
    for (const char* function : {"calls_target", "calls_same"}) library_.Unhook(First, function);
  }
  auto* map = library_.find<decltype(calls_map)>("calls_map");
  ASSERT_EQ(library_.Hook(FirstMap, "mmap64"), 0) << testing::PrintToString(LogLines());
  EXPECT_EQ(map(), 1);
  EXPECT_EQ(order, "11m");
}

TEST_F(Hooking, TwoSlotsOfOneFunctionAreHookedButReported) {
  void** other = library_.slot("calls_other");
  // Changes the relocation of another slot to this function. Some linkers create two slots for one.
  const auto index = linker::sharedLib(library_.name());
  const auto number = [&index](const char* name) {
    return static_cast<std::uint64_t>(index.find_symbol_by_name(name) - index.symtab_);
  };
  const auto* found = std::find_if(
      index.plt_relocations_, index.plt_relocations_ + index.plt_relocations_count_,
      [&](const auto& each) { return ELF64_R_SYM(each.r_info) == number("calls_other"); });
  auto& info = const_cast<Elf64_Xword&>(found->r_info);
  ASSERT_EQ(mprotect(PageOf(&info), kPage, PROT_READ | PROT_WRITE | PROT_EXEC), 0);
  info = ELF64_R_INFO(number("calls_target"), ELF64_R_TYPE(info));

  EXPECT_EQ(library_.Hook(First), 1);
  EXPECT_EQ(errno, EMLINK);
  EXPECT_EQ(Call(1), 2);
  EXPECT_EQ(library_.find<decltype(calls_call_other)>("calls_call_other")(1), 3);
  EXPECT_EQ(order, "11");
  EXPECT_EQ(library_.Unhook(First), 1);
  EXPECT_EQ(*slot_, original_);
  EXPECT_EQ(*other, library_.address("calls_other"));
}

TEST_F(Hooking, RefusesASlotThatLeadsIntoNoLibrary) {
  auto* heap = std::malloc(64);
  ASSERT_EQ(unsafe_patch_relocation_address(slot_, heap), 0);
  EXPECT_EQ(library_.Hook(First), 1);
  EXPECT_EQ(errno, ENXIO);
  char line[64];
  std::snprintf(line, sizeof(line), "] GOT entry does not point to a DSO:%lx",
                reinterpret_cast<unsigned long>(heap));
  EXPECT_TRUE(Logged(line)) << line;
  EXPECT_EQ(*slot_, heap);
  std::free(heap);
}

/// False if the platform makes the whole page read-only after a write. A library without full RELRO
/// has its variables on that page and cannot be hooked. No device has such a library.
bool MayBeHooked(const Library& partial) {
  return platform::ProtectionAfterWrite(PageOf(partial.slot()), kPage) != PROT_READ;
}

TEST(LazySlot, FailsUntilItIsResolved) {
  unsetenv("LD_BIND_NOW");
  const Library library(CALLS_PARTIAL, false);
  if (!MayBeHooked(library)) GTEST_SKIP() << "every library is fully protected";
  EXPECT_EQ(library.Hook(First), 1);
  ASSERT_EQ(LogLines().size(), 1U);
  EXPECT_NE(LogLines()[0].find("] GOT entry does not point to symbol we need: "),
            std::string::npos);
  EXPECT_TRUE(Logged(" vs calls_target"));
  EXPECT_EQ(library.Call(1), 2);
  EXPECT_EQ(library.Hook(First), 0);
  EXPECT_EQ(library.Call(1), 2);
  EXPECT_EQ(order, "1");
}

TEST(Pages, KeepTheirRights) {
  const struct {
    const char* path;
    const char* rights;
    int protection;
  } cases[] = {{CALLS_FULL, "r--", PROT_READ}, {CALLS_PARTIAL, "rw-", PROT_READ | PROT_WRITE}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.path);
    const Library library(each.path);
    if (each.protection != PROT_READ && !MayBeHooked(library)) break;
    void** slot = library.slot();
    EXPECT_EQ(Rights(slot), each.rights);
    EXPECT_EQ(platform::ProtectionAfterWrite(PageOf(slot), kPage), each.protection);
    EXPECT_EQ(library.Hook(First), 0);
    EXPECT_EQ(Rights(slot), each.rights);
    EXPECT_EQ(library.Unhook(First), 0);
    EXPECT_EQ(Rights(slot), each.rights);
  }
  const Library partial(CALLS_PARTIAL);
  EXPECT_EQ(PageOf(partial.address("calls_variable")), PageOf(partial.slot()));
}

/// Maps a page of a file with this `content`, if it is not null. Then changes the file's length to
/// `bytes`.
void** MapFile(int rights, off_t bytes, const void* content = nullptr) {
  char path[] = "/tmp/plthooks_test.XXXXXX";
  const int file = mkstemp(path);
  EXPECT_EQ(ftruncate(file, kPage), 0);
  if (content != nullptr) {
    EXPECT_EQ(pwrite(file, content, kPage, 0), static_cast<ssize_t>(kPage));
  }
  const int again = open(path, (rights & PROT_WRITE) != 0 ? O_RDWR : O_RDONLY);
  void* page = mmap(nullptr, kPage, rights, MAP_SHARED, again, 0);
  EXPECT_NE(page, MAP_FAILED);
  EXPECT_EQ(ftruncate(file, bytes), 0);
  close(again);
  close(file);
  unlink(path);
  return static_cast<void**>(page);
}

TEST(Pages, FailedWritesAreReported) {
  ASSERT_EQ(plthooks_initialize(), 0);
  EXPECT_EQ(unsafe_patch_relocation_address(MapFile(PROT_READ, kPage), &order), 5);
  EXPECT_TRUE(Logged("] unsafe_patch_relocation_address mprotect"));
  void** beyond_the_end = MapFile(PROT_READ | PROT_WRITE, 0);
  EXPECT_EQ(unsafe_patch_relocation_address(beyond_the_end, &order), 1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_TRUE(LogLines().empty());
}

/// Moves the page at `replacement` over the page that contains the slot.
void ReplacePage(void** slot, void** replacement) {
  ASSERT_EQ(mremap(replacement, kPage, kPage, MREMAP_MAYMOVE | MREMAP_FIXED, PageOf(slot)),
            PageOf(slot));
}

TEST_F(Hooking, ReadOnlySlotFailsEveryTime) {
  ReplacePage(slot_, MapFile(PROT_READ, kPage, PageOf(slot_)));
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(library_.Hook(First), 1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(*slot_, original_);
  }
  // With a writable slot the next attempt succeeds.
  ReplacePage(slot_, MapFile(PROT_READ | PROT_WRITE, kPage, PageOf(slot_)));
  EXPECT_EQ(library_.Hook(Second), 0);
  EXPECT_EQ(Call(1), 2);
  EXPECT_EQ(order, "21");
}

TEST_F(Hooking, FailsWithoutAThreadKeyThatNeverAllocates) {
  if (platform::ThreadKeyNeverAllocates(1000)) GTEST_SKIP() << "no such key";
  pthread_key_t key = 0;
  while (platform::ThreadKeyNeverAllocates(key)) ASSERT_EQ(pthread_key_create(&key, nullptr), 0);
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(library_.Hook(First), 1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(Logged("] too many thread keys are in use to hook a function"));
    EXPECT_EQ(*slot_, original_);
  }
}

TEST_F(Hooking, SlotThatCannotBeRestoredEndsTheProcess) {
  ASSERT_EQ(library_.Hook(First), 0);
  EXPECT_EXIT(ReportAbort([this] {
                // Replaces the slot's page by a read-only copy.
                ReplacePage(slot_, MapFile(PROT_READ, kPage, PageOf(slot_)));
                library_.Unhook(First);
              }),
              testing::ExitedWithCode(3),
              "7 .*plthooks/plthooks.cpp:[0-9]+. Unable to unhook GOT slot");
}

}  // namespace
}  // namespace lumora::plthooks
