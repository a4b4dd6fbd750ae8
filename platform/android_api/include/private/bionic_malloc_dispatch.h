// SPDX-License-Identifier: Apache-2.0
// Replacement for bionic's header of the same name: the table of the C library's own allocator
// functions, in bionic's field order (64-bit).
#pragma once

#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

typedef void* (*MallocCalloc)(size_t, size_t);
typedef void (*MallocFree)(void*);
typedef struct mallinfo (*MallocMallinfo)(void);
typedef void* (*MallocMalloc)(size_t);
typedef size_t (*MallocMallocUsableSize)(const void*);
typedef void* (*MallocMemalign)(size_t, size_t);
typedef int (*MallocPosixMemalign)(void**, size_t, size_t);
typedef void* (*MallocRealloc)(void*, size_t);
typedef int (*MallocIterate)(uintptr_t, size_t, void (*)(uintptr_t, size_t, void*), void*);
typedef void (*MallocMallocDisable)(void);
typedef void (*MallocMallocEnable)(void);
typedef int (*MallocMallopt)(int, int);
typedef void* (*MallocAlignedAlloc)(size_t, size_t);
typedef int (*MallocMallocInfo)(int, FILE*);

/// The C library fills it before it calls track_initialize and never changes it afterwards.
/// Readable on any thread. The alignment is bionic's.
struct MallocDispatch {
  MallocCalloc calloc;
  MallocFree free;
  MallocMallinfo mallinfo;
  MallocMalloc malloc;
  MallocMallocUsableSize malloc_usable_size;
  MallocMemalign memalign;
  MallocPosixMemalign posix_memalign;
  MallocRealloc realloc;
  MallocIterate malloc_iterate;
  MallocMallocDisable malloc_disable;
  MallocMallocEnable malloc_enable;
  MallocMallopt mallopt;
  MallocAlignedAlloc aligned_alloc;
  MallocMallocInfo malloc_info;
} __attribute__((aligned(32)));
