// The calling thread's stack by call-frame information. Any thread, any context.
#include "platform/call_stack.h"

#include <dlfcn.h>

#include <cstring>

#include "arch/unwind.h"
#include "platform/cfi/loaded_object.h"
#include "platform/cfi/rule_cache.h"
#include "platform/cfi/walk.h"

namespace platform {
namespace {

constexpr char kTracker[] = "libmemleak_tracker.so";

/// Where the tracker lies. Written once, before the first capture.
std::uint64_t g_tracker_begin = 0;
std::uint64_t g_tracker_bytes = 0;

/// The frame that called the function whose frame record is `entry`.
__attribute__((always_inline)) inline cfi::Frame CallerOf(const arch::FrameRecord* entry) {
  cfi::Frame caller{arch::StripReturnAddress(entry->return_address),
                    reinterpret_cast<std::uint64_t>(entry + 1), entry->caller_frame};
  if (arch::kFrameRecordEndsFrame || cfi::NeedsNoStackPointer(caller.return_address)) {
    return caller;
  }
  // From here on outward, to the first frame above the record.
  arch::Registers registers;
  arch::CaptureRegisters(&registers);
  caller = {registers.pc + arch::kCallSiteAdjustment, registers.general[arch::kStackPointerColumn],
            registers.general[arch::kFramePointerColumn]};
  while (caller.sp <= reinterpret_cast<std::uint64_t>(entry)) {
    if (!cfi::StepToCaller(&caller)) return {};
  }
  return caller;
}

bool IsTracker(std::uint64_t address) {
  return address - g_tracker_begin < g_tracker_bytes;
}

}  // namespace

bool PrepareCallStacks() {
  const auto here = reinterpret_cast<std::uint64_t>(&PrepareCallStacks);
  Dl_info info{};
  cfi::LoadedObject object;
  if (dladdr(reinterpret_cast<void*>(here), &info) == 0 || info.dli_fname == nullptr) return true;
  const char* slash = std::strrchr(info.dli_fname, '/');
  const char* name = slash == nullptr ? info.dli_fname : slash + 1;
  // Tests have this file in programs of other names, whose frames are of interest.
  if (std::strcmp(name, kTracker) == 0 && cfi::FindLoadedObject(here, &object)) {
    g_tracker_begin = object.begin;
    g_tracker_bytes = object.end - object.begin;
  }
  return true;
}

__attribute__((noinline)) std::size_t CallStack(const arch::FrameRecord* entry, std::uint64_t* pcs,
                                                std::size_t max_pcs) {
  cfi::Frame start = CallerOf(entry);
  while (__builtin_expect(IsTracker(start.return_address), 0)) {
    if (!cfi::StepToCaller(&start)) return 0;
  }
  return cfi::WalkFrames(start, pcs, max_pcs);
}

void CodeIsUnloaded() {
  cfi::RuleCache::EndGeneration();
}

}  // namespace platform
