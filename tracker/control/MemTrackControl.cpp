// SPDX-License-Identifier: Apache-2.0
// The tracker's switches and thread marks: start-up, shut-down and the control signal's handler.
// The functions of the allocation path are inline in the header.
#include "tracker/control/MemTrackControl.h"

#include <cstring>
#include <initializer_list>
#include <new>

#include "async_safe/log.h"
#include "protocol/protocol.h"

std::atomic<std::uint32_t> mem_track_type{NATIVE};
ThreadMark record_key{2};
std::atomic<bool> is_plt_hook{false};
std::atomic<std::uint32_t> signal_bt_size{0};
std::atomic<std::uint32_t> signal_bt_type{0};

std::atomic<MemTrackControl*> MemTrackControl::instance_{nullptr};

MemTrackControl* MemTrackControl::CreateInstance() {
  MemTrackControl* instance = GetInstance();
  if (instance == nullptr) {
    instance = new (std::nothrow) MemTrackControl;
    instance_.store(instance, std::memory_order_release);
  }
  return instance;
}

void MemTrackControl::DestroyInstance() {
  delete instance_.exchange(nullptr, std::memory_order_acq_rel);
}

bool MemTrackControl::DebugDisableInit() {
  ConfigHookStatus(false, false);
  ConfigPltHookStatus(false, false);
  for (ThreadMark* mark : {&debug_disable_key_, &plt_disable_key_, &record_key}) {
    const int error = mark->Create();
    if (error != 0) {
      async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "pthread_key_create failed: %s",
                            std::strerror(error));
      return false;
    }
  }
  return true;
}

void MemTrackControl::DeleteKeys() {
  for (ThreadMark* mark : {&debug_disable_key_, &plt_disable_key_, &record_key}) mark->Delete();
}

void MemTrackControl::ConfigHookStatus(bool start, bool ever) {
  hook_ever_started_.store(ever, std::memory_order_release);
  hook_start_.store(start, std::memory_order_release);
}

void MemTrackControl::ConfigPltHookStatus(bool start, bool ever) {
  plt_hook_ever_started_.store(ever, std::memory_order_release);
  plt_hook_start_.store(start, std::memory_order_release);
}
