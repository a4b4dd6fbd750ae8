// SPDX-License-Identifier: Apache-2.0
// The dump thread: writes one report outside of the control signal's handler.
#include "tracker/DumpThread.h"

#include <sched.h>

#include <cerrno>
#include <new>
#include <utility>

#include "async_safe/log.h"
#include "platform/program_name.h"
#include "platform/published_state.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"

namespace {

using protocol::kLogTag;

void LogNoThread() {
  async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "cannot start MemDumpThread.");
  platform::PublishReportFailure(EAGAIN, "cannot start a thread for the report");
  platform::PublishReportEnd(0);
}

}  // namespace

namespace android {

bool MemDumpThread::threadLoop() {
  if (std::exchange(reported_, true)) {
    // The starter still holds its reference. Each command yields one report, so wait for it.
    sched_yield();
  } else {
    platform::PublishReportThread();
    PointerData::DumpAllocationTracesToFile();
    platform::PublishReportEnd(unreported_blocks.load(std::memory_order_relaxed));
  }
  return true;
}

bool MemDumpMain::Enable() {
  if (thread_ == nullptr) thread_ = sp<MemDumpThread>(new MemDumpThread());
  if (thread_->run(protocol::kDumpThread, PRIORITY_BACKGROUND, 0) != NO_ERROR) {
    LogNoThread();
    return false;
  }
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "start %s", "Start");
  return true;
}

}  // namespace android

void AsyncReport() {
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "Start dumping allocations of the process %s",
                        platform::ProgramName());
  platform::PublishReportStart();
  try {
    android::MemDumpMain starter;
    starter.Enable();
  } catch (const std::bad_alloc&) {
    LogNoThread();
  }
}
