// What stands in for the mapping and device calls of hooked libraries.
//
// Reached through a hooked slot's trampoline only, on any thread that calls the hooked function,
// concurrently. Each makes the real call first, with its own arguments unchanged, and returns its
// result unchanged; then, while recording of the hooked kinds is on and the thread is not marked,
// it adds or removes a record of the size that the call carries.
//
// Intentional: what the real call returned is not looked at, except for a null address. A failed
// mapping or device request is recorded like any other, its argument is read, and a DMA buffer
// stays recorded when its descriptor is closed.
#pragma once

#include <sys/types.h>

#include <cstddef>

extern "C" {

/// For mmap and mmap64. Only anonymous mappings are recorded.
void* shared_proxy_mmap64(void* address, std::size_t length, int protection, int flags,
                          int descriptor, off_t offset);
/// For __mmap2, whose offset counts pages.
void* shared_proxy___mmap2(void* address, std::size_t length, int protection, int flags,
                           int descriptor, std::size_t page_offset);
/// For mremap; `new_address` is an argument only with MREMAP_FIXED.
/// Intentional: applies the test for anonymous mappings to its own flags, where that bit means
/// nothing, so that it hardly ever records.
void* shared_proxy_mremap(void* old_address, std::size_t old_size, std::size_t new_size, int flags,
                          void* new_address);
/// For munmap.
int shared_proxy_munmap(void* address, std::size_t length);
/// For the ioctl of libdmabufheap.so; the argument is a dma_heap_allocation_data. The key of a
/// buffer's record is the place of the descriptor in the caller's argument.
int shared_proxy_ion_ioctl(int descriptor, unsigned long request, void* argument);
/// For the ioctl of libgsl.so; the argument is read as two words, an address and a size. The key
/// of a buffer's record is the place of the argument itself.
int shared_proxy_gpu_ioctl(int descriptor, unsigned long request, void* argument);

}  // extern "C"
