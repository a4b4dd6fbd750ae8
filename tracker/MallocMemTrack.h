// The library's exported entries: the malloc debug protocol, resolved by the C library by name and
// symbol version LIBC_MALLOC_QUARLE (see libmemleak_tracker.map).
//
// Unless a line says otherwise an entry may be called on any thread, after track_initialize has
// returned true. None of them throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "private/bionic_malloc_dispatch.h"

#pragma GCC visibility push(default)
extern "C" {

/// Start-up, once, before other threads use the tracker. `table` is the C library's own allocator
/// and must outlive the process; `zygote_child` points to its flag and to four readable bytes.
/// `options` is not read. False when a pointer is null or start-up fails; then nothing is left
/// behind and it may be called again. Recording is off until the control signal switches it on.
bool track_initialize(const MallocDispatch* table, bool* zygote_child, const char* options);
/// Shut-down: no thread records from here on. Other threads may still be inside an entry, and all
/// entries keep forwarding.
void track_finalize();

/// The C library's malloc; records the block while recording. A recorded request of 0 bytes takes
/// 1, and one of 2 GiB or more is refused with null and ENOMEM; that goes for every entry below.
void* track_malloc(std::size_t size);
/// Forgets the record of `pointer` (null is fine), then gives the memory back.
void track_free(void* pointer);
/// As calloc; an overflowing product is refused with ENOMEM while recording.
void* track_calloc(std::size_t count, std::size_t size);
/// As realloc. While recording, size 0 frees and returns null; when the C library's realloc fails
/// the old block survives without a record.
void* track_realloc(void* pointer, std::size_t size);
/// As memalign.
void* track_memalign(std::size_t alignment, std::size_t size);
/// As aligned_alloc. While recording, EINVAL for an alignment with more than one bit set; 0 is
/// allowed, and the size need not be a multiple of it.
void* track_aligned_alloc(std::size_t alignment, std::size_t size);
/// As posix_memalign: 0, EINVAL (then `result` is left alone) or ENOMEM. Keeps errno.
int track_posix_memalign(void** result, std::size_t alignment, std::size_t size);
/// Usable bytes of a block, as the C library gives them.
std::size_t track_malloc_usable_size(const void* pointer);
/// The C library's mallinfo.
struct mallinfo track_mallinfo();
/// The C library's mallopt.
int track_mallopt(int parameter, int value);
/// The C library's malloc_iterate.
int track_malloc_iterate(std::uintptr_t base, std::size_t size,
                         void (*callback)(std::uintptr_t base, std::size_t size, void* argument),
                         void* argument);
/// The C library's malloc_info; 0 and no output while the calling thread records.
int track_malloc_info(int options, std::FILE* stream);
/// Stops all allocation: the C library's lock outside, then every lock of the record store.
void track_malloc_disable();
/// Ends track_malloc_disable, on the same thread.
void track_malloc_enable();
/// Copies up to `max_frames` pcs of the stack that allocated `pointer`, innermost first; returns
/// their number. 0 without a record and while recording is off for the caller.
std::size_t track_malloc_backtrace(void* pointer, std::uintptr_t* frames, std::size_t max_frames);

/// The leak-info export; all five outputs are required. They are 0 when there is nothing to export
/// and untouched when one of them is null.
void track_get_malloc_leak_info(std::uint8_t** info, std::size_t* overall_size,
                                std::size_t* info_size, std::size_t* total_memory,
                                std::size_t* backtrace_size);
/// Gives `info` back to the C library's allocator.
void track_free_malloc_leak_info(std::uint8_t* info);
/// Inert: a null stream is logged, any other is left alone.
void track_write_malloc_leak_info(std::FILE* stream);
/// Writes the heap dump text to `file_name`, which is created or truncated. False, logged, when
/// it cannot be created.
bool track_dump_heap(const char* file_name);

/// Stores a callback in slot `index` (0 to 5; 4 and 5 are run by the control signal). False for a
/// null callback or another index, and without memory. May be called before track_initialize, on
/// one thread.
bool RegistryAllocateTracker(std::uint32_t index, void (*callback)());

}  // extern "C"
#pragma GCC visibility pop
