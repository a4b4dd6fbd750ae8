// The dump thread: one report, off the control signal's handler.
#include "tracker/DumpThread.h"

#include <sched.h>

#include <utility>

#include "async_safe/log.h"
#include "platform/program_name.h"
#include "records/PointerData.h"
#include "tracker/MemTrackControl.h"

namespace {

constexpr char kLogTag[] = "MemLeak.Native";

/// Recording may be switched on again while the report is being written; what this thread allocates
/// is the tracker's own and never belongs in a report.
void MarkThread() {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (control != nullptr && control->ThreadEnabled()) control->DisableThread();
}

}  // namespace

namespace android {

bool MemDumpThread::threadLoop() {
  if (std::exchange(reported_, true)) {
    // The report was quicker than the starter, which still holds its reference. Every command
    // yields one report, so this round only waits for the starter.
    sched_yield();
  } else {
    MarkThread();
    PointerData::DumpAllocationTracesToFile();
  }
  return true;
}

bool MemDumpMain::Enable() {
  if (!thread_) thread_ = sp<MemDumpThread>::make();
  if (thread_->run("MemDumpThread", PRIORITY_BACKGROUND, 0) != NO_ERROR) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "cannot start MemDumpThread.");
    return false;
  }
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "start %s", "Start");
  return true;
}

}  // namespace android

void AsyncReport() {
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "Start dumping allocations of the process %s",
                        platform::ProgramName());
  android::MemDumpMain starter;
  starter.Enable();
}
