// SPDX-License-Identifier: Apache-2.0
// Opens the tracker and looks up its entries.
#include "host/tracker.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "host/form.h"
#include "host/next_allocator.h"
#include "host/signal_actions.h"
#include "host/slots.h"
#include "protocol/protocol.h"

namespace host {
namespace {

constexpr char kVersion[] = "LIBC_MALLOC_QUARLE";
using Initialize = bool (*)(const MallocDispatch* next, bool* zygote_child, const char* options);
using Finalize = void (*)();

AllocatorTable tracked;
Finalize track_finalize = nullptr;
// Always 0: Linux has no zygote. Not a bool, because the tracker reads four bytes.
uint32_t zygote_child = 0;

/// Writes the path of the tracker, in the directory of this library. Returns false if the directory
/// cannot be found.
bool TrackerPath(char (&path)[PATH_MAX]) {
  Dl_info self;
  if (dladdr(&tracked, &self) == 0 || self.dli_fname == nullptr) return false;
  const char* slash = strrchr(self.dli_fname, '/');
  const int directory = slash != nullptr ? static_cast<int>(slash - self.dli_fname) : 1;
  const int length = snprintf(path, sizeof path, "%.*s/%s", directory,
                              slash != nullptr ? self.dli_fname : ".", protocol::kTrackerLibrary);
  return length > 0 && static_cast<size_t>(length) < sizeof path;
}

/// Returns the tracker's entry "track_`name`"; null, with the reason, if there is none.
void* TrackerEntry(void* tracker, const char* name, Reason& reason) {
  char entry[64];
  snprintf(entry, sizeof entry, "track_%s", name);
  void* function = dlvsym(tracker, entry, kVersion);
  if (function == nullptr) {
    reason.Set("%s has no %s@%s", protocol::kTrackerLibrary, entry, kVersion);
  }
  return function;
}

}  // namespace

void Reason::Set(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
}

bool StartTracker(Reason& reason) {
  if (track_finalize != nullptr) return true;
  char path[PATH_MAX];
  if (!TrackerPath(path)) {
    reason.Set("cannot find the directory of %s", protocol::kPreloadLibrary);
    return false;
  }
  void* tracker = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (tracker == nullptr) {
    reason.Set("cannot open %s: %s", path, dlerror());
    return false;
  }
  for (const AllocatorEntry& entry : kAllocatorEntries) {
    void* function = TrackerEntry(tracker, entry.name, reason);
    if (function == nullptr) return false;
    SetEntry(tracked.calls, entry, function);
  }
  tracked.mallinfo2 = NextAllocator().mallinfo2;
  const auto initialize = reinterpret_cast<Initialize>(TrackerEntry(tracker, "initialize", reason));
  const auto finalize = reinterpret_cast<Finalize>(TrackerEntry(tracker, "finalize", reason));
  if (initialize == nullptr || finalize == nullptr) return false;
  if (CurrentForm() != Form::kPreloaded) {
    ReplaceTrackerSlots(reinterpret_cast<const void*>(initialize));
  }
  CaptureActions(true);
  const bool initialized =
      initialize(&NextAllocator().calls, reinterpret_cast<bool*>(&zygote_child), "");
  CaptureActions(false);
  if (!initialized) {
    reason.Set("%s could not be initialized", path);
    return false;
  }
  track_finalize = finalize;
  return true;
}

const AllocatorTable& TrackedAllocator() {
  return tracked;
}

void (*FinalizeTracker())() {
  return track_finalize;
}

}  // namespace host
