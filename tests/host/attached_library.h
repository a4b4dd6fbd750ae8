// SPDX-License-Identifier: Apache-2.0
// The functions of attached_library.cpp.
#pragma once

#include <stddef.h>

/// How a block is allocated. Determines how it is freed.
enum class Way : unsigned { kMalloc, kCalloc, kAligned, kPosix, kPointer, kCopied, kNew, kCount };

struct Allocator {
  void* (*allocate)(Way way, size_t size);
  void* (*resize)(void* block, size_t size);
  void (*release)(Way way, void* block);
  void* (*open)(const char* library);
};

/// Pointers to functions of the allocator.
struct Pointers {
  void* (*take)(size_t);
  void (*give)(void*);
};

/// A variable of a library. The program has a copy of it (R_*_COPY).
extern "C" Pointers attached_copied;

/// A function of the program. Each library calls it when it is loaded.
extern "C" void attached_register(const Allocator& allocator);
