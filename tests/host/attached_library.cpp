// SPDX-License-Identifier: Apache-2.0
// A library that calls the allocator. Built in several ways: with lazy binding, without lazy
// binding, and without a PLT.
#include "tests/host/attached_library.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <new>

Pointers attached_copied = {malloc, free};

namespace {

// Pointers in data, which hold functions after relocation.
Pointers pointers = {malloc, free};

void* Allocate(Way way, size_t size) {
  void* block = nullptr;
  switch (way) {
    case Way::kCalloc:
      return calloc(1, size);
    case Way::kAligned:
      return aligned_alloc(64, size);
    case Way::kPosix:
      return posix_memalign(&block, 128, size) == 0 ? block : nullptr;
    case Way::kPointer:
      return pointers.take(size);
    case Way::kCopied:
      return attached_copied.take(size);
    case Way::kNew:
      return ::operator new(size);
    default:
      return malloc(size);
  }
}

void Release(Way way, void* block) {
  switch (way) {
    case Way::kPointer:
      return pointers.give(block);
    case Way::kCopied:
      return attached_copied.give(block);
    case Way::kNew:
      return ::operator delete(block);
    default:
      return free(block);
  }
}

void* Open(const char* library) {
  // Not a tail call: the dynamic linker must see this library as the caller.
  void* volatile opened = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  return opened;
}

void* Resize(void* block, size_t size) {
  return realloc(block, size);
}

__attribute__((constructor)) void Register() {
  attached_register({Allocate, Resize, Release, Open});
}

}  // namespace
