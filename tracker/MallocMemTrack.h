// SPDX-License-Identifier: Apache-2.0
// The library's exported entries: the malloc debug protocol, resolved by the C library by name and
// symbol version LIBC_MALLOC_QUARLE (see libmemleak_tracker.map).
//
// Unless stated otherwise, an entry may be called on any thread after track_initialize has returned
// true. None of them throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "private/bionic_malloc_dispatch.h"

#pragma GCC visibility push(default)
extern "C" {

/// Start-up, once, before other threads use the tracker. `table` is the C library's own allocator
/// and stays valid; `zygote_child` is its flag, where four bytes are readable. `options` is not
/// read. Returns false if a pointer is null or start-up fails; it may then be called again.
/// Recording is off until the control signal switches it on.
bool track_initialize(const MallocDispatch* table, bool* zygote_child, const char* options);
/// Shut-down: no thread records afterwards. Other threads may be inside an entry; all entries keep
/// forwarding.
void track_finalize();

/// As malloc; records the block while recording. A recorded request of 0 bytes becomes 1 byte, and
/// one of 2 GiB or more fails with ENOMEM; so do the other entries that allocate.
void* track_malloc(std::size_t size);
/// Removes the record of `pointer`, which may be null, and frees the memory.
void track_free(void* pointer);
/// As calloc. While recording, fails with ENOMEM if the product overflows.
void* track_calloc(std::size_t count, std::size_t size);
/// As realloc. While recording, size 0 frees and returns null; if the C library's realloc fails,
/// the old block stays without a record.
void* track_realloc(void* pointer, std::size_t size);
/// As memalign.
void* track_memalign(std::size_t alignment, std::size_t size);
/// As aligned_alloc. While recording, fails with EINVAL if the alignment has more than one bit set.
/// An alignment of 0 is allowed, and the size need not be a multiple of the alignment.
void* track_aligned_alloc(std::size_t alignment, std::size_t size);
/// As posix_memalign: 0, ENOMEM, or EINVAL, which leaves `result` unchanged. Keeps errno.
int track_posix_memalign(void** result, std::size_t alignment, std::size_t size);
/// The C library's malloc_usable_size.
std::size_t track_malloc_usable_size(const void* pointer);
/// The C library's mallinfo.
struct mallinfo track_mallinfo();
/// The C library's mallopt.
int track_mallopt(int parameter, int value);
/// The C library's malloc_iterate.
int track_malloc_iterate(std::uintptr_t base, std::size_t size,
                         void (*callback)(std::uintptr_t base, std::size_t size, void* argument),
                         void* argument);
/// The C library's malloc_info. While the calling thread records, returns 0 without output.
int track_malloc_info(int options, std::FILE* stream);
/// Stops all allocation: takes the C library's lock, then every lock of the record store.
void track_malloc_disable();
/// Ends track_malloc_disable, on the same thread.
void track_malloc_enable();
/// Copies up to `max_frames` pcs of the stack that allocated `pointer`, innermost first. Returns
/// their number; 0 if there is no record or the calling thread does not record.
std::size_t track_malloc_backtrace(void* pointer, std::uintptr_t* frames, std::size_t max_frames);

/// The leak-info export. All five outputs are required: if one is null, the others are unchanged.
/// They are 0 if there is nothing to export.
void track_get_malloc_leak_info(std::uint8_t** info, std::size_t* overall_size,
                                std::size_t* info_size, std::size_t* total_memory,
                                std::size_t* backtrace_size);
/// Frees `info` with the C library's allocator.
void track_free_malloc_leak_info(std::uint8_t* info);
/// Writes nothing; logs a null stream.
void track_write_malloc_leak_info(std::FILE* stream);
/// Writes the heap dump text to `file_name`, which is created or truncated. Returns false, logged,
/// if that fails.
bool track_dump_heap(const char* file_name);

/// Stores `callback` in slot `index`, 0 to 5. Commands run those in slots 4 and 5. Returns false
/// for a null callback or another index, or if there is no memory. May be called before
/// track_initialize, on one thread.
bool RegistryAllocateTracker(std::uint32_t index, void (*callback)());

}  // extern "C"
#pragma GCC visibility pop
