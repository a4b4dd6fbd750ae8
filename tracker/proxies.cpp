// The proxies. See the header for who runs them.
#include "tracker/proxies.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstring>

#include "async_safe/log.h"
#include "platform/readable.h"
#include "plthooks/trampoline.h"
#include "records/PointerData.h"
#include "tracker/DebugData.h"
#include "tracker/MemTrackControl.h"

namespace {

/// DMA_HEAP_IOCTL_ALLOC (linux/dma-heap.h): read-write, type 'H', number 0, 24 bytes.
constexpr std::uint32_t kDmaHeapAllocate = 0xC0184800;
/// KGSL (msm_kgsl.h), type 9: number 0x45, read-write, 48 bytes; number 0x46, write, 32 bytes.
constexpr std::uint32_t kGpuAllocate = 0xC0300945;
constexpr std::uint32_t kGpuFree = 0x40200946;

/// The head of dma_heap_allocation_data (linux/dma-heap.h).
struct DmaHeapAllocation {
  std::uint64_t len;
  std::uint32_t fd;
};

/// What is read of a KGSL argument, whatever the request.
struct GpuAllocation {
  std::uint64_t address;
  std::uint64_t size;
};

/// The function that `proxy` stands in for, in the call that is running.
template <typename Function>
Function* Previous(Function* proxy) {
  return reinterpret_cast<Function*>(
      lumora::plthooks::get_previous_from_hook(reinterpret_cast<void*>(proxy)));
}

/// The tracker's switches when this call is to be recorded, else null.
const MemTrackControl* Recording() {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (control == nullptr || !control->GetPltHookStart()) return nullptr;
  return control->PltThreadEnabled() ? control : nullptr;
}

/// Marks the thread while its call is recorded: mappings that the tracker makes meanwhile are not
/// the program's. Looks once more, since recording may have been switched off.
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
  async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native", "%s", text);
}

PointerData* Store() {
  DebugData* data = DebugData::GetInstance();
  return data != nullptr ? data->pointer() : nullptr;
}

/// Records what a call made, if it names it.
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

/// The word at `address`; 0 when it cannot be read. The program may pass any pointer: the device
/// call reports a bad one, and the proxy must not fault on it. Takes no lock; keeps errno.
std::uint64_t ReadWord(const std::uint64_t* address) {
  const auto first = reinterpret_cast<std::uint64_t>(address);
  std::uint64_t word = 0;
  if (platform::CanRead(first) && platform::CanRead(first + sizeof(word) - 1)) {
    std::memcpy(&word, static_cast<const void*>(address), sizeof(word));
  }
  return word;
}

}  // namespace

void* shared_proxy_mmap64(void* address, std::size_t length, int protection, int flags,
                          int descriptor, off_t offset) {
  void* mapping =
      Previous(shared_proxy_mmap64)(address, length, protection, flags, descriptor, offset);
  return RecordMapping(mapping, length, flags);
}

void* shared_proxy___mmap2(void* address, std::size_t length, int protection, int flags,
                           int descriptor, std::size_t page_offset) {
  void* mapping =
      Previous(shared_proxy___mmap2)(address, length, protection, flags, descriptor, page_offset);
  return RecordMapping(mapping, length, flags);
}

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

int shared_proxy_ion_ioctl(int descriptor, unsigned long request, void* argument) {
  const int result = Previous(shared_proxy_ion_ioctl)(descriptor, request, argument);
  const MemTrackControl* control = Recording();
  // The kernel looks at 32 bits of a request; the others may be a sign.
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
