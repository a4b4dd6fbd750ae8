// SPDX-License-Identifier: Apache-2.0
// A program that allocates through libraries that can be hooked. Reads one command per line from
// standard input. Answers "ok" if every call behaves as it does without hooks:
//   map COUNT SIZE, unmap COUNT     anonymous mappings, of libmapper.so
//   ion COUNT SIZE                  DMA-heap buffers, of libdmabufheap.so
//   gpu COUNT SIZE, gpufree COUNT   GPU buffers, of libgsl.so
//   other COUNT                     requests that are not recorded
// The ioctl function below replaces the devices.
#include <sys/mman.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" {
void* MapOne(std::size_t size);
int UnmapOne(void* mapping, std::size_t size);
int HeapRequest(int descriptor, unsigned long request, void* argument);
int GpuRequest(int descriptor, unsigned long request, void* argument);
}

namespace {

constexpr unsigned kMax = 4096;
constexpr unsigned long kHeapAllocate = 0xC0184800;
constexpr unsigned long kGpuAllocate = 0xC0300945;
constexpr unsigned long kGpuFree = 0x40200946;
constexpr int kDevice = 77;

struct HeapBuffer {
  std::uint64_t len;
  std::uint32_t fd;
  std::uint32_t flags;
  std::uint64_t heap_flags;
};
struct GpuBuffer {
  std::uint64_t address;
  std::uint64_t size;
  std::uint64_t rest[4];
};

struct Mapping {
  void* address;
  std::size_t size;
};

Mapping mappings[kMax];
HeapBuffer heap_buffers[kMax];
GpuBuffer gpu_buffers[kMax];
unsigned mapped = 0;
unsigned heaps = 0;
unsigned gpus = 0;

bool Map(std::size_t size) {
  void* address = MapOne(size);
  if (address == MAP_FAILED) return false;
  std::memset(address, 1, 16);
  mappings[mapped++] = {address, size};
  return true;
}

bool Unmap() {
  --mapped;
  return UnmapOne(mappings[mapped].address, mappings[mapped].size) == 0;
}

bool AllocateHeap(std::uint64_t size) {
  HeapBuffer& buffer = heap_buffers[heaps++];
  buffer.len = size;
  return HeapRequest(kDevice, kHeapAllocate, &buffer) == 0 && buffer.fd == 1000;
}

bool AllocateGpu(std::uint64_t size) {
  GpuBuffer& buffer = gpu_buffers[gpus++];
  buffer.size = size;
  return GpuRequest(kDevice, kGpuAllocate, &buffer) == 0 && buffer.address == 0xA000;
}

bool FreeGpu() {
  return GpuRequest(kDevice, kGpuFree, &gpu_buffers[--gpus]) == 0;
}

/// Requests that are not recorded, and one with an argument that cannot be read.
bool Other() {
  std::uint64_t block[8] = {64, 64};
  errno = 0;
  return HeapRequest(kDevice, 0xC0184801, block) == 5 && GpuRequest(kDevice, 0x1234, block) == 5 &&
         HeapRequest(kDevice, kHeapAllocate, reinterpret_cast<void*>(8)) == -1 && errno == EFAULT;
}

template <typename Action>
bool Repeat(unsigned count, Action action) {
  bool good = true;
  for (unsigned i = 0; i < count; ++i) good = action() && good;
  return good;
}

bool Obey(const char* line) {
  char verb[16] = {};
  unsigned count = 0;
  unsigned size = 0;
  std::sscanf(line, "%15s %u %u", verb, &count, &size);
  if (std::strcmp(verb, "map") == 0) return Repeat(count, [=] { return Map(size); });
  if (std::strcmp(verb, "unmap") == 0) return Repeat(count, Unmap);
  if (std::strcmp(verb, "ion") == 0) return Repeat(count, [=] { return AllocateHeap(size); });
  if (std::strcmp(verb, "gpu") == 0) return Repeat(count, [=] { return AllocateGpu(size); });
  if (std::strcmp(verb, "gpufree") == 0) return Repeat(count, FreeGpu);
  return std::strcmp(verb, "other") == 0 && Repeat(count, Other);
}

}  // namespace

/// The fake device. The libraries find this function before the C library's.
extern "C" __attribute__((visibility("default"))) int ioctl(int descriptor, unsigned long request,
                                                            ...) noexcept {
  std::va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (descriptor != kDevice) return -1;
  if (reinterpret_cast<std::uintptr_t>(argument) < 4096) {
    errno = EFAULT;
    return -1;
  }
  if (request == kHeapAllocate) {
    static_cast<HeapBuffer*>(argument)->fd = 1000;
  } else if (request == kGpuAllocate) {
    static_cast<GpuBuffer*>(argument)->address = 0xA000;
  } else if (request != kGpuFree) {
    return 5;
  }
  return 0;
}

int main() {
  char line[512];
  while (std::fgets(line, sizeof line, stdin) != nullptr && std::strcmp(line, "quit\n") != 0) {
    std::puts(Obey(line) ? "ok" : "wrong");
    std::fflush(stdout);
  }
  return 0;
}
