// The delivered library, driven as the C library drives it: resolved by versioned name, switched by
// its signal. Every recording entry must show its caller as the innermost frame.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "private/bionic_malloc_dispatch.h"

namespace {

template <typename Function>
Function* Entry(const char* name) {
  static void* library = dlopen(TRACKER_LIBRARY, RTLD_NOW);
  if (library == nullptr) ADD_FAILURE() << dlerror();
  void* address = dlvsym(library, name, "LIBC_MALLOC_QUARLE");
  if (address == nullptr) ADD_FAILURE() << name << " is missing";
  return reinterpret_cast<Function*>(address);
}

const MallocDispatch kDispatch = {
    calloc,
    free,
    [] {
      struct mallinfo nothing = {};
      return nothing;
    },
    malloc,
    [](const void* pointer) { return malloc_usable_size(const_cast<void*>(pointer)); },
    memalign,
    posix_memalign,
    realloc,
    [](uintptr_t, size_t, void (*)(uintptr_t, size_t, void*), void*) { return -1; },
    [] {},
    [] {},
    mallopt,
    aligned_alloc,
    malloc_info,
};

void Send(std::uint64_t word) {
  siginfo_t info = {};
  info.si_signo = 44;
  info.si_code = SI_QUEUE;
  std::memcpy(reinterpret_cast<char*>(&info) + 16, &word, sizeof word);
  ASSERT_EQ(syscall(SYS_rt_sigqueueinfo, getpid(), 44, &info), 0);
  usleep(1000);  // a sanitizer puts the handler off until such a call
}

enum Kind { kMalloc, kCalloc, kRealloc, kMemalign, kAlignedAlloc, kPosixMemalign, kKinds };

}  // namespace

extern "C" {

// Visible, so that dladdr can name them; the empty statement keeps each call from being a jump.
__attribute__((noinline, visibility("default"))) void* tracker_test_inner(int kind) {
  void* block = nullptr;
  switch (kind) {
    case kMalloc:
      block = Entry<void*(size_t)>("track_malloc")(40);
      break;
    case kCalloc:
      block = Entry<void*(size_t, size_t)>("track_calloc")(5, 8);
      break;
    case kRealloc:
      block = Entry<void*(size_t)>("track_malloc")(10);
      block = Entry<void*(void*, size_t)>("track_realloc")(block, 40);
      break;
    case kMemalign:
      block = Entry<void*(size_t, size_t)>("track_memalign")(64, 40);
      break;
    case kAlignedAlloc:
      block = Entry<void*(size_t, size_t)>("track_aligned_alloc")(64, 40);
      break;
    default:
      Entry<int(void**, size_t, size_t)>("track_posix_memalign")(&block, 64, 40);
      break;
  }
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
  static std::uint32_t zygote_flag = 0;
  ASSERT_TRUE((Entry<bool(const MallocDispatch*, void*, const char*)>("track_initialize")(
      &kDispatch, &zygote_flag, "")));
  const auto frames_of = Entry<size_t(void*, uintptr_t*, size_t)>("track_malloc_backtrace");
  Send(0x90);
  std::vector<void*> blocks;
  for (int kind = 0; kind < kKinds; ++kind) {
    SCOPED_TRACE(kind);
    void* block = tracker_test_outer(kind);
    ASSERT_NE(block, nullptr);
    std::uintptr_t frames[8] = {};
    ASSERT_GE(frames_of(block, frames, 8), 2U);
    EXPECT_EQ(NameOf(frames[0]), "tracker_test_inner");
    EXPECT_EQ(NameOf(frames[1]), "tracker_test_outer");
    Entry<void(void*)>("track_free")(block);
  }
  Entry<void()>("track_finalize")();
}

}  // namespace
