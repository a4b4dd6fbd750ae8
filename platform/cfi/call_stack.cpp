// SPDX-License-Identifier: Apache-2.0
// The calling thread's stack by call-frame information. Any thread, any context.
#include "platform/call_stack.h"

#include <dlfcn.h>

#include <cstring>

#include "arch/unwind.h"
#include "platform/cfi/loaded_object.h"
#include "platform/cfi/rule_cache.h"
#include "platform/cfi/walk.h"
#include "platform/readable_stack.h"
#include "protocol/protocol.h"

namespace platform {
namespace {

/// Where the tracker is mapped. Written once, before the first capture.
std::uint64_t g_tracker_begin = 0;
std::uint64_t g_tracker_bytes = 0;

bool IsTracker(std::uint64_t address) {
  return address - g_tracker_begin < g_tracker_bytes;
}

/// As CallStack, but starts at the first frame outside the tracker. A separate function, so that
/// CallStack itself keeps no frame while it walks from the tracker's caller.
__attribute__((noinline)) std::size_t SkipTracker(std::uint64_t return_address, std::uint64_t sp,
                                                  std::uint64_t fp, std::uint64_t* pcs,
                                                  std::size_t max_pcs) {
  cfi::Frame start{return_address, sp, fp};
  while (IsTracker(start.return_address)) {
    if (!cfi::StepToCaller(&start)) return 0;
  }
  return cfi::WalkFrames(start.return_address, start.sp, start.fp, pcs, max_pcs);
}

}  // namespace

bool PrepareCallStacks() {
  PrepareReadableStack();
  cfi::PrepareLoadedObjects();
  const void* counter = dlsym(RTLD_DEFAULT, protocol::kUnloadCounter);
  if (counter != nullptr) {
    cfi::RuleCache::Observe(static_cast<const std::atomic<std::uint64_t>*>(counter));
  }
  const auto here = reinterpret_cast<std::uint64_t>(&PrepareCallStacks);
  Dl_info info{};
  cfi::LoadedObject object;
  if (dladdr(reinterpret_cast<void*>(here), &info) == 0 || info.dli_fname == nullptr) return true;
  const char* slash = std::strrchr(info.dli_fname, '/');
  const char* name = slash == nullptr ? info.dli_fname : slash + 1;
  // Tests and benchmarks link this file into programs. The frames of these are not skipped.
  if (std::strcmp(name, protocol::kTrackerLibrary) == 0 && cfi::FindLoadedObject(here, &object)) {
    g_tracker_begin = object.begin;
    g_tracker_bytes = object.end - object.begin;
  }
  return true;
}

// The calls of SkipTracker and WalkFrames are tail calls.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) std::size_t CallStack(
    const arch::FrameRecord* inner, std::uint64_t* pcs, std::size_t max_pcs) {
  const auto* entry = reinterpret_cast<const arch::FrameRecord*>(inner->caller_frame);
  const std::uint64_t end =
      arch::kFrameRecordEndsFrame
          ? reinterpret_cast<std::uint64_t>(entry + 1)
          : cfi::EndOfFrame(arch::StripReturnAddress(inner->return_address), inner->caller_frame);
  if (end == 0) return 0;
  const std::uint64_t return_address = arch::StripReturnAddress(entry->return_address);
  if (__builtin_expect(IsTracker(return_address), 0)) {
    return SkipTracker(return_address, end, entry->caller_frame, pcs, max_pcs);
  }
  return cfi::WalkFrames(return_address, end, entry->caller_frame, pcs, max_pcs);
}

}  // namespace platform
