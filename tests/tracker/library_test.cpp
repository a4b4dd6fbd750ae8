// The delivered library, driven as the C library drives it: resolved by versioned name, switched by
// its signal. Every recording entry must show its caller as the innermost frame.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <string>

#include "tests/control_signal.h"
#include "tracker/MallocMemTrack.h"

namespace {

void* Resolve(const char* name) {
  static void* library = dlopen(TRACKER_LIBRARY, RTLD_NOW);
  void* address = library == nullptr ? nullptr : dlvsym(library, name, "LIBC_MALLOC_QUARLE");
  if (address == nullptr) ADD_FAILURE() << name << ": " << dlerror();
  return address;
}
/// The library's entry of that name, typed as declared.
#define ENTRY(name) reinterpret_cast<decltype(&(name))>(Resolve(#name))

MallocDispatch RealAllocator() {
  MallocDispatch table = {};
  table.malloc = malloc;
  table.free = free;
  table.calloc = calloc;
  table.realloc = realloc;
  table.memalign = memalign;
  table.posix_memalign = posix_memalign;
  table.malloc_usable_size = [](const void* block) {
    return malloc_usable_size(const_cast<void*>(block));
  };
  return table;
}

}  // namespace

extern "C" {

// Visible, so that dladdr can name them; the empty statement keeps each call from being a jump.
__attribute__((noinline, visibility("default"))) void* tracker_test_inner(int kind) {
  void* block = nullptr;
  if (kind == 0) block = ENTRY(track_malloc)(40);
  if (kind == 1) block = ENTRY(track_calloc)(5, 8);
  if (kind == 2) block = ENTRY(track_realloc)(ENTRY(track_malloc)(10), 40);
  if (kind == 3) block = ENTRY(track_memalign)(64, 40);
  if (kind == 4) block = ENTRY(track_aligned_alloc)(64, 40);
  if (kind == 5) ENTRY(track_posix_memalign)(&block, 64, 40);
  __asm__ volatile("");
  return block;
}

__attribute__((noinline, visibility("default"))) void* tracker_test_outer(int kind) {
  void* block = tracker_test_inner(kind);
  __asm__ volatile("");
  return block;
}

}  // extern "C"

namespace {

std::string NameOf(std::uintptr_t pc) {
  Dl_info info = {};
  if (dladdr(reinterpret_cast<void*>(pc), &info) == 0 || info.dli_sname == nullptr) return "?";
  return info.dli_sname;
}

TEST(LibraryTest, EveryEntryRecordsItsCaller) {
  static const MallocDispatch table = RealAllocator();
  static std::uint32_t zygote_flag = 0;
  ASSERT_TRUE(ENTRY(track_initialize)(&table, reinterpret_cast<bool*>(&zygote_flag), ""));
  const auto frames_of = ENTRY(track_malloc_backtrace);
  ASSERT_TRUE(SendControlSignal(getpid(), 0x90));
  usleep(1000);  // a sanitizer puts the handler off until such a call
  for (int kind = 0; kind < 6; ++kind) {
    SCOPED_TRACE(kind);
    void* block = tracker_test_outer(kind);
    ASSERT_NE(block, nullptr);
    std::uintptr_t frames[8] = {};
    ASSERT_GE(frames_of(block, frames, 8), 2U);
    EXPECT_EQ(NameOf(frames[0]), "tracker_test_inner");
    EXPECT_EQ(NameOf(frames[1]), "tracker_test_outer");
    ENTRY(track_free)(block);
  }
  ENTRY(track_finalize)();
}

}  // namespace
