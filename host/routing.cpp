// SPDX-License-Identifier: Apache-2.0
// The allocator functions that the program and its libraries call, on any thread.
//
// Each is a jump through the active table, so that recorded stacks start at the program's call.
// Every build type compiles this file with optimization and without frame pointers, for tail calls
// (CMakeLists.txt).
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "host/allocator_table.h"
#include "host/bootstrap_arena.h"
#include "host/control_thread.h"
#include "host/exports.h"
#include "host/next_allocator.h"

namespace host {
namespace {

/// A table that was passed to UseAllocator, and the tables that are derived from it.
struct Route {
  const AllocatorTable* plain;  // null: not filled
  AllocatorTable aware;         // handles blocks of the bootstrap arena
  AllocatorTable arena;         // as `aware`, but allocates in the arena
  AllocatorTable starting;      // starts the control thread first
};

// A filled element never changes: other threads may read it at any time.
Route routes[2];
// The latest route; the table that is normally used; the table in use.
std::atomic<const Route*> route{nullptr};
std::atomic<const AllocatorTable*> usual_table{nullptr};
std::atomic<const AllocatorTable*> active_table{&kBootstrapTable};
// The thread that has a PassTracker, 0 if none, and the table that this thread uses.
std::atomic<pthread_t> passing_thread{0};
std::atomic<const AllocatorTable*> passing_table{nullptr};

// The acquire pairs with the release in UseAllocator.
inline const AllocatorTable& Active() {
  return *active_table.load(std::memory_order_acquire);
}
inline const AllocatorTable& Plain() {
  return *route.load(std::memory_order_acquire)->plain;
}
inline const AllocatorTable& Usual() {
  return *usual_table.load(std::memory_order_acquire);
}

/// Returns the table that a function of the `starting` table forwards to. On the thread that has a
/// PassTracker, this is the PassTracker's table. On other threads, starts the control thread if it
/// is pending and returns the usual table.
const AllocatorTable& Start() {
  if (passing_thread.load() == pthread_self()) return *passing_table.load();
  StartPendingThread();
  return Usual();
}

// Tail calls, so that recorded stacks contain no frame of these functions.
void* StartAndMalloc(size_t size) {
  return Start().calls.malloc(size);
}

void* StartAndCalloc(size_t count, size_t size) {
  return Start().calls.calloc(count, size);
}

void* StartAndRealloc(void* pointer, size_t size) {
  return Start().calls.realloc(pointer, size);
}

void* StartAndMemalign(size_t alignment, size_t size) {
  return Start().calls.memalign(alignment, size);
}

void* StartAndAlignedAlloc(size_t alignment, size_t size) {
  return Start().calls.aligned_alloc(alignment, size);
}

int StartAndPosixMemalign(void** result, size_t alignment, size_t size) {
  return Start().calls.posix_memalign(result, alignment, size);
}

void* ArenaMalloc(size_t size) {
  return ArenaAllocate(0, size);
}

void ArenaAwareFree(void* pointer) {
  if (ArenaContains(pointer)) return;
  Plain().calls.free(pointer);
}

/// For a block of the arena the call is not a tail call, so the recorded stack starts with this
/// function.
void* ArenaAwareRealloc(void* pointer, size_t size) {
  if (!ArenaContains(pointer)) return Plain().calls.realloc(pointer, size);
  if (size == 0) return nullptr;
  void* block = Plain().calls.malloc(size);
  if (block == nullptr) return nullptr;
  const size_t old_size = ArenaBlockSize(pointer);
  return memcpy(block, pointer, old_size < size ? old_size : size);
}

size_t ArenaAwareUsableSize(const void* pointer) {
  if (ArenaContains(pointer)) return ArenaBlockSize(pointer);
  return Plain().calls.malloc_usable_size(pointer);
}

void Fill(Route& empty, const AllocatorTable& plain) {
  AllocatorTable& aware = empty.aware;
  aware = plain;
  aware.calls.free = ArenaAwareFree;
  aware.calls.realloc = ArenaAwareRealloc;
  aware.calls.malloc_usable_size = ArenaAwareUsableSize;
  empty.arena = aware;
  empty.arena.calls.malloc = ArenaMalloc;
  empty.arena.calls.calloc = ArenaCalloc;
  empty.arena.calls.memalign = ArenaAllocate;
  empty.starting = aware;
  empty.starting.calls.malloc = StartAndMalloc;
  empty.starting.calls.calloc = StartAndCalloc;
  empty.starting.calls.realloc = StartAndRealloc;
  empty.starting.calls.memalign = StartAndMemalign;
  empty.starting.calls.aligned_alloc = StartAndAlignedAlloc;
  empty.starting.calls.posix_memalign = StartAndPosixMemalign;
  empty.plain = &plain;
}

}  // namespace

void UseAllocator(const AllocatorTable& plain) {
  Route* used = routes;
  while (used->plain != nullptr && used->plain != &plain) ++used;
  if (used->plain == nullptr) Fill(*used, plain);
  const AllocatorTable* usual = ArenaUsed() ? &used->aware : &plain;
  route.store(used, std::memory_order_release);
  usual_table.store(usual, std::memory_order_release);
  active_table.store(usual, std::memory_order_release);
}

const AllocatorTable& ActiveAllocator() {
  return Active();
}

void StartThreadAtNextCall() {
  active_table.store(&route.load()->starting);
}

void RestoreAllocator() {
  active_table.store(usual_table.load());
}

PassTracker::PassTracker(From from) {
  if (from == From::kArena) {
    MarkArenaUsed();
    usual_table.store(&route.load()->aware);
  }
  passing_table.store(from == From::kArena ? &route.load()->arena : &NextAllocator());
  passing_thread.store(pthread_self());
  active_table.store(&route.load()->starting);
}

PassTracker::~PassTracker() {
  passing_thread.store(0);
  RestoreAllocator();
}

}  // namespace host

using host::Active;

MEMLEAK_EXPORT void* malloc(size_t size) noexcept {
  return Active().calls.malloc(size);
}

MEMLEAK_EXPORT void free(void* pointer) noexcept {
  Active().calls.free(pointer);
}

MEMLEAK_EXPORT void* calloc(size_t count, size_t size) noexcept {
  return Active().calls.calloc(count, size);
}

MEMLEAK_EXPORT void* realloc(void* pointer, size_t size) noexcept {
  return Active().calls.realloc(pointer, size);
}

MEMLEAK_EXPORT void* memalign(size_t alignment, size_t size) noexcept {
  return Active().calls.memalign(alignment, size);
}

MEMLEAK_EXPORT void* aligned_alloc(size_t alignment, size_t size) noexcept {
  return Active().calls.aligned_alloc(alignment, size);
}

MEMLEAK_EXPORT int posix_memalign(void** result, size_t alignment, size_t size) noexcept {
  return Active().calls.posix_memalign(result, alignment, size);
}

/// The tracker has no such entry: calls memalign with the page size.
MEMLEAK_EXPORT void* valloc(size_t size) noexcept {
  const auto page = static_cast<size_t>(getpagesize());
  return Active().calls.memalign(page, size);
}

/// As valloc, with the size rounded up to whole pages.
MEMLEAK_EXPORT void* pvalloc(size_t size) noexcept {
  const auto page = static_cast<size_t>(getpagesize());
  if (size > SIZE_MAX - (page - 1)) {
    errno = ENOMEM;
    return nullptr;
  }
  return Active().calls.memalign(page, (size + page - 1) & -page);
}

MEMLEAK_EXPORT size_t malloc_usable_size(void* pointer) noexcept {
  return Active().calls.malloc_usable_size(pointer);
}

MEMLEAK_EXPORT struct mallinfo mallinfo() noexcept {
  return Active().calls.mallinfo();
}

MEMLEAK_EXPORT struct mallinfo2 mallinfo2() noexcept {
  return Active().mallinfo2();
}

MEMLEAK_EXPORT int mallopt(int parameter, int value) noexcept {
  return Active().calls.mallopt(parameter, value);
}

MEMLEAK_EXPORT int malloc_info(int options, FILE* stream) noexcept {
  return Active().calls.malloc_info(options, stream);
}
