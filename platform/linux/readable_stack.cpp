// SPDX-License-Identifier: Apache-2.0
// The readable stack on Linux, and on Android outside a platform tree: it ends with its mapping.
//
// Each thread caches its results as numbers in thread-specific values. So there is no memory to
// allocate or free, and a signal handler never sees a partial update. The bounds of a thread's own
// stack do not change. Any other stack, such as a coroutine's, may be unmapped while the thread
// runs elsewhere and a smaller one mapped in its place, so its cache is cleared by the next capture
// elsewhere.
#include "platform/readable_stack.h"

#include <pthread.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <atomic>

#include "platform/policies.h"

namespace platform {
namespace {

/// The largest distance from a known page that is probed, which bounds the cost of a stray value:
/// 8 MiB, glibc's default size of a stack.
constexpr std::uint64_t kMaxPages = (std::uint64_t{8} << 20) / kSmallestPage;

std::uint64_t PageOf(std::uint64_t address) {
  return address / kSmallestPage;
}

bool IsReadable(std::uint64_t page) {
  return CanRead(page * kSmallestPage);
}

/// A range of readable pages.
struct Pages {
  std::uint64_t first = 0;
  std::uint64_t count = 0;
  /// The page after the last one is not readable.
  bool ends = false;

  bool Contains(std::uint64_t address) const { return PageOf(address) - first < count; }
  std::uint64_t End() const { return (first + count) * kSmallestPage; }
};

// The caches of each thread. Values are initially 0.
pthread_key_t g_own_stack;    // packed Pages: the known part of its own stack, up to the top
pthread_key_t g_own_limit;    // an unreadable page below its own stack
pthread_key_t g_other_stack;  // packed Pages: the stack of the last capture, if not its own
/// Whether the keys exist. Without them nothing is cached.
std::atomic<bool> g_remembers{false};

/// Creates a key that can be set without allocating. Returns false if none is left.
bool CreateKey(pthread_key_t& key) {
  if (pthread_key_create(&key, nullptr) != 0) return false;
  if (ThreadKeyNeverAllocates(key)) return true;
  pthread_key_delete(key);
  return false;
}

std::uint64_t Load(const pthread_key_t& key) {
  if (!g_remembers.load(std::memory_order_acquire)) return 0;
  return reinterpret_cast<std::uint64_t>(pthread_getspecific(key));
}

void Remember(const pthread_key_t& key, std::uint64_t number) {
  if (!g_remembers.load(std::memory_order_acquire)) return;
  pthread_setspecific(key, reinterpret_cast<const void*>(number));
}

// The packed form: bits 28 to 63 are `first` (48-bit addresses), 1 to 27 `count`, bit 0 is `ends`.
constexpr unsigned kCountBits = 27;

Pages LoadPages(const pthread_key_t& key) {
  const std::uint64_t number = Load(key);
  return {number >> (kCountBits + 1), number >> 1 & ((std::uint64_t{1} << kCountBits) - 1),
          (number & 1) != 0};
}

void RememberPages(const pthread_key_t& key, const Pages& pages) {
  if (pages.first >> (63 - kCountBits) != 0 || pages.count >> kCountBits != 0) return;
  Remember(key, pages.first << (kCountBits + 1) | pages.count << 1 | (pages.ends ? 1 : 0));
}

/// The main thread and an address near the top of its stack.
std::atomic<pthread_t> g_main_thread{};
std::atomic<std::uint64_t> g_main_top{0};

/// Returns an address above all frames of the calling thread's own stack, in the same mapping.
std::uint64_t TopOfOwnStack() {
  const pthread_t self = pthread_self();
  if (self == g_main_thread.load(std::memory_order_relaxed)) {
    return g_main_top.load(std::memory_order_relaxed);
  }
  // glibc puts a thread's descriptor at the top of its stack, even of a stack that the program
  // provides.
  return static_cast<std::uint64_t>(self);
}

/// Returns whether `address` is on the calling thread's own stack, of which `known` is a part: all
/// pages between them are readable. Adds these pages to `known`.
bool ExtendOwnStack(std::uint64_t address, Pages& known) {
  if (!g_remembers.load(std::memory_order_acquire)) return false;
  if (known.count == 0) known = {PageOf(TopOfOwnStack()), 1, true};
  const std::uint64_t page = PageOf(address);
  if (page > known.first || known.first - page > kMaxPages) return false;
  if (page <= Load(g_own_limit)) return false;
  for (std::uint64_t between = page + 1; between < known.first; ++between) {
    if (IsReadable(between)) continue;
    Remember(g_own_limit, between);
    return false;
  }
  known.count += known.first - page;
  known.first = page;
  RememberPages(g_own_stack, known);
  return true;
}

}  // namespace

void PrepareReadableStack() {
  // The tracker may be initialized again.
  static std::atomic<bool> prepared{false};
  if (prepared.exchange(true)) return;
  if (!CreateKey(g_own_stack) || !CreateKey(g_own_limit) || !CreateKey(g_other_stack)) return;
  if (gettid() == getpid()) {
    // The kernel puts these bytes above the first frame.
    g_main_top.store(getauxval(AT_RANDOM), std::memory_order_relaxed);
    g_main_thread.store(pthread_self(), std::memory_order_relaxed);
  }
  g_remembers.store(true, std::memory_order_release);
}

void ReadableStack::LoadOtherStack() {
  const Pages other = LoadPages(g_other_stack);
  if (other.Contains(begin_)) {
    end_ = other.End();
  } else if (other.count != 0) {
    Remember(g_other_stack, 0);
  }
}

bool ReadableStack::Reaches(std::uint64_t address, std::uint64_t bytes) {
  const std::uint64_t wanted_end = address + bytes;
  if (address < begin_ || wanted_end < address) return false;
  Pages pages = LoadPages(g_own_stack);
  if (!pages.Contains(begin_) && !ExtendOwnStack(begin_, pages)) {
    pages = LoadPages(g_other_stack);
    if (!pages.Contains(begin_)) pages = {PageOf(begin_), 1, false};
    if (wanted_end - begin_ > kMaxPages * kSmallestPage) return false;
    while (!pages.ends && pages.End() < wanted_end) {
      pages.ends = !IsReadable(pages.first + pages.count);
      if (!pages.ends) ++pages.count;
    }
    RememberPages(g_other_stack, pages);
    other_stack_remembered.store(true, std::memory_order_relaxed);
  }
  end_ = pages.End();
  return wanted_end <= end_;
}

}  // namespace platform
