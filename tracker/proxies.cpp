// SPDX-License-Identifier: Apache-2.0
// The proxies.
//
// A hooked slot's trampoline calls them, on any thread that calls the hooked function. Each makes
// the real call first, with its own arguments unchanged, and returns its result unchanged. Then,
// while the hooked kinds are recorded and the thread is not marked, it adds or removes a record of
// the size that the call carries.
//
// Intentional: the result of the real call is not checked, except for a null address. A failed
// mapping or device request is recorded like any other, its argument is read, and a DMA buffer
// stays recorded when its descriptor is closed.
#include "tracker/proxies.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstring>

#include "async_safe/log.h"
#include "platform/readable.h"
#include "plthooks/trampoline.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "tracker/DebugData.h"
#include "tracker/control/MemTrackControl.h"

namespace {

/// DMA_HEAP_IOCTL_ALLOC (linux/dma-heap.h): read-write, type 'H', number 0, 24 bytes.
constexpr std::uint32_t kDmaHeapAllocate = 0xC0184800;
/// KGSL (msm_kgsl.h), type 9: number 0x45, read-write, 48 bytes; number 0x46, write, 32 bytes.
constexpr std::uint32_t kGpuAllocate = 0xC0300945;
constexpr std::uint32_t kGpuFree = 0x40200946;

/// The start of dma_heap_allocation_data (linux/dma-heap.h).
struct DmaHeapAllocation {
  std::uint64_t len;
  std::uint32_t fd;
};

/// The part of a KGSL argument that is read, for all requests.
struct GpuAllocation {
  std::uint64_t address;
  std::uint64_t size;
};

/// The function that `proxy` replaces in the running call.
template <typename Function>
Function* Previous(Function* proxy) {
  return reinterpret_cast<Function*>(
      lumora::plthooks::get_previous_from_hook(reinterpret_cast<void*>(proxy)));
}

/// Returns the tracker's switches if this call is recorded, else null.
const MemTrackControl* Recording() {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (control == nullptr || !control->GetPltHookStart()) return nullptr;
  return control->PltThreadEnabled() ? control : nullptr;
}

/// Marks the thread while its call is recorded, so that the tracker's own mappings are not
/// recorded. Checks the switches again: recording may have been switched off.
class PltScope {
 public:
  explicit PltScope(const MemTrackControl* control)
      : marked_(control->GetPltHookStart() && control->PltThreadEnabled() ? control : nullptr) {
    if (marked_ != nullptr) marked_->DisablePltThread();
  }
  ~PltScope() {
    if (marked_ != nullptr) marked_->EnablePltThread();
  }
  PltScope(const PltScope&) = delete;
  PltScope& operator=(const PltScope&) = delete;

 private:
  const MemTrackControl* const marked_;
};

void LogError(const char* text) {
  async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "%s", text);
}

PointerData* Store() {
  DebugData* data = DebugData::GetInstance();
  return data != nullptr ? data->pointer() : nullptr;
}

/// Records the mapping or buffer that a call has created.
void Add(const void* key, std::uint64_t size) {
  if (key == nullptr || size == 0) return LogError("map result error");
  if (PointerData* store = Store(); store != nullptr) store->AddMapping(key, size);
}

void Remove(const void* key, std::uint64_t size) {
  if (key == nullptr || size == 0) return LogError("munmap addr or size error");
  if (PointerData* store = Store(); store != nullptr) store->RemoveMapping(key, size);
}

void* RecordMapping(void* mapping, std::size_t size, int flags) {
  const MemTrackControl* control = Recording();
  if (control == nullptr || (flags & MAP_ANONYMOUS) == 0) return mapping;
  const PltScope scope(control);
  Add(mapping, size);
  return mapping;
}

/// Returns the word at `address`; 0 if it cannot be read. The program may pass any pointer, and the
/// proxy must not fault on a bad one. Takes no lock; keeps errno.
std::uint64_t ReadWord(const std::uint64_t* address) {
  const auto first = reinterpret_cast<std::uint64_t>(address);
  std::uint64_t word = 0;
  if (platform::CanRead(first) && platform::CanRead(first + sizeof(word) - 1)) {
    std::memcpy(&word, static_cast<const void*>(address), sizeof(word));
  }
  return word;
}

/// For mmap and mmap64. Only anonymous mappings are recorded.
void* shared_proxy_mmap64(void* address, std::size_t length, int protection, int flags,
                          int descriptor, off_t offset) {
  void* mapping =
      Previous(shared_proxy_mmap64)(address, length, protection, flags, descriptor, offset);
  return RecordMapping(mapping, length, flags);
}

/// For __mmap2, whose offset counts pages.
void* shared_proxy___mmap2(void* address, std::size_t length, int protection, int flags,
                           int descriptor, std::size_t page_offset) {
  void* mapping =
      Previous(shared_proxy___mmap2)(address, length, protection, flags, descriptor, page_offset);
  return RecordMapping(mapping, length, flags);
}

/// Intentional: tests the flags of mremap for MAP_ANONYMOUS. The bit has no meaning there and is
/// rarely set, so the call is rarely recorded. The record of the old mapping stays.
void* shared_proxy_mremap(void* old_address, std::size_t old_size, std::size_t new_size, int flags,
                          void* new_address) {
  void* mapping =
      Previous(shared_proxy_mremap)(old_address, old_size, new_size, flags, new_address);
  return RecordMapping(mapping, new_size, flags);
}

int shared_proxy_munmap(void* address, std::size_t length) {
  const int result = Previous(shared_proxy_munmap)(address, length);
  const MemTrackControl* control = Recording();
  if (control == nullptr) return result;
  const PltScope scope(control);
  Remove(address, length);
  return result;
}

/// For the ioctl of libdmabufheap.so. The key of a record is the address of the descriptor in the
/// caller's dma_heap_allocation_data.
int shared_proxy_ion_ioctl(int descriptor, unsigned long request, void* argument) {
  const int result = Previous(shared_proxy_ion_ioctl)(descriptor, request, argument);
  const MemTrackControl* control = Recording();
  // The kernel reads 32 bits of a request. The upper ones may be a sign extension.
  if (control == nullptr || static_cast<std::uint32_t>(request) != kDmaHeapAllocate) return result;
  const PltScope scope(control);
  const auto* allocation = static_cast<const DmaHeapAllocation*>(argument);
  if (allocation == nullptr) {
    Add(nullptr, 0);
  } else {
    Add(&allocation->fd, ReadWord(&allocation->len));
  }
  return result;
}

/// For the ioctl of libgsl.so. The key of a record is the address of the caller's argument.
int shared_proxy_gpu_ioctl(int descriptor, unsigned long request, void* argument) {
  const int result = Previous(shared_proxy_gpu_ioctl)(descriptor, request, argument);
  const MemTrackControl* control = Recording();
  const auto code = static_cast<std::uint32_t>(request);
  if (control == nullptr || (code != kGpuAllocate && code != kGpuFree)) return result;
  const PltScope scope(control);
  const auto* allocation = static_cast<const GpuAllocation*>(argument);
  const std::uint64_t size = allocation != nullptr ? ReadWord(&allocation->size) : 0;
  code == kGpuAllocate ? Add(allocation, size) : Remove(allocation, size);
  return result;
}

struct ProxyRow {
  const char* key;
  void* proxy;
};

/// Offsets have 64 bits here, so mmap and mmap64 are one function.
const ProxyRow kProxies[] = {
    {"mmap", reinterpret_cast<void*>(shared_proxy_mmap64)},
    {"mmap64", reinterpret_cast<void*>(shared_proxy_mmap64)},
    {"__mmap2", reinterpret_cast<void*>(shared_proxy___mmap2)},
    {"mremap", reinterpret_cast<void*>(shared_proxy_mremap)},
    {"munmap", reinterpret_cast<void*>(shared_proxy_munmap)},
    {"ioctl_libdmabufheap.so", reinterpret_cast<void*>(shared_proxy_ion_ioctl)},
    {"ioctl_libgsl.so", reinterpret_cast<void*>(shared_proxy_gpu_ioctl)},
};

}  // namespace

void* FindProxy(std::string_view key) {
  for (const ProxyRow& row : kProxies) {
    if (key == row.key) return row.proxy;
  }
  return nullptr;
}
