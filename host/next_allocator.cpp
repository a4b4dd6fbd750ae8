// SPDX-License-Identifier: Apache-2.0
// Looks up the next allocator, and handles calls until it is known.
#include "host/next_allocator.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "host/bootstrap_arena.h"
#include "host/next_function.h"

namespace host {
namespace {

enum class Phase { kUnknown, kSearching, kFound };

std::atomic<Phase> phase{Phase::kUnknown};
AllocatorTable next;

int NoIterate(uintptr_t, size_t, void (*)(uintptr_t, size_t, void*), void*) {
  errno = ENOSYS;
  return -1;
}

void NoSwitch() {}

struct mallinfo2 NoMallinfo2() {
  return {};
}

[[noreturn]] void NoAllocator() {
  constexpr char kLine[] = "memleak: found no allocator to forward to; cannot continue\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kLine, sizeof kLine - 1);
  _exit(127);
}

void Search() {
  for (const AllocatorEntry& entry : kAllocatorEntries) {
    if (!entry.in_c_library) continue;
    void* function = NextDefinition(entry.name);
    if (function == nullptr) NoAllocator();
    SetEntry(next.calls, entry, function);
  }
  next.calls.malloc_iterate = NoIterate;
  next.calls.malloc_disable = NoSwitch;
  next.calls.malloc_enable = NoSwitch;
  // Newer than the rest: glibc 2.33.
  void* function = NextDefinition("mallinfo2");
  next.mallinfo2 = NoMallinfo2;
  if (function != nullptr) memcpy(&next.mallinfo2, &function, sizeof function);
}

/// Returns whether the arena must serve a request. This function marks the arena before it reads
/// the phase again; FindNextAllocator sets the phase before it reads the mark. So at least one of
/// the two sees the other's write, and the final table handles every arena block.
bool UseArena() {
  if (FindNextAllocator()) return false;
  MarkArenaUsed();
  return phase.load() != Phase::kFound;
}

void* BootstrapMalloc(size_t size) {
  return UseArena() ? ArenaAllocate(0, size) : next.calls.malloc(size);
}

void* BootstrapCalloc(size_t count, size_t size) {
  return UseArena() ? ArenaCalloc(count, size) : next.calls.calloc(count, size);
}

void* BootstrapMemalign(size_t alignment, size_t size) {
  return UseArena() ? ArenaAllocate(alignment, size) : next.calls.memalign(alignment, size);
}

void* BootstrapAlignedAlloc(size_t alignment, size_t size) {
  return UseArena() ? ArenaAllocate(alignment, size) : next.calls.aligned_alloc(alignment, size);
}

int BootstrapPosixMemalign(void** result, size_t alignment, size_t size) {
  if (!UseArena()) return next.calls.posix_memalign(result, alignment, size);
  void* block = ArenaAllocate(alignment, size);
  if (block == nullptr) return ENOMEM;
  *result = block;
  return 0;
}

void* BootstrapRealloc(void* pointer, size_t size) {
  if (pointer != nullptr && !ArenaContains(pointer)) {
    if (FindNextAllocator()) return next.calls.realloc(pointer, size);
    // An unknown block from before the lookup.
    errno = ENOMEM;
    return nullptr;
  }
  void* block = BootstrapMalloc(size);
  if (block == nullptr || pointer == nullptr) return block;
  const size_t old_size = ArenaBlockSize(pointer);
  return memcpy(block, pointer, old_size < size ? old_size : size);
}

/// Ignores an unknown block from before the lookup.
void BootstrapFree(void* pointer) {
  if (pointer == nullptr || ArenaContains(pointer)) return;
  if (FindNextAllocator()) next.calls.free(pointer);
}

size_t BootstrapUsableSize(const void* pointer) {
  if (pointer == nullptr) return 0;
  if (ArenaContains(pointer)) return ArenaBlockSize(pointer);
  return FindNextAllocator() ? next.calls.malloc_usable_size(pointer) : 0;
}

struct mallinfo BootstrapMallinfo() {
  if (!FindNextAllocator()) return {};
  return next.calls.mallinfo();
}

struct mallinfo2 BootstrapMallinfo2() {
  if (!FindNextAllocator()) return {};
  return next.mallinfo2();
}

int BootstrapMallopt(int parameter, int value) {
  return FindNextAllocator() ? next.calls.mallopt(parameter, value) : 0;
}

int BootstrapMallocInfo(int options, FILE* stream) {
  return FindNextAllocator() ? next.calls.malloc_info(options, stream) : -1;
}

}  // namespace

const AllocatorTable kBootstrapTable = {
    {BootstrapCalloc, BootstrapFree, BootstrapMallinfo, BootstrapMalloc, BootstrapUsableSize,
     BootstrapMemalign, BootstrapPosixMemalign, BootstrapRealloc, NoIterate, NoSwitch, NoSwitch,
     BootstrapMallopt, BootstrapAlignedAlloc, BootstrapMallocInfo},
    BootstrapMallinfo2};

bool FindNextAllocator() {
  Phase seen = Phase::kUnknown;
  if (!phase.compare_exchange_strong(seen, Phase::kSearching)) return seen == Phase::kFound;
  const int saved_errno = errno;
  Search();
  phase.store(Phase::kFound);
  UseAllocator(next);
  errno = saved_errno;
  return true;
}

const AllocatorTable& NextAllocator() {
  return next;
}

}  // namespace host
