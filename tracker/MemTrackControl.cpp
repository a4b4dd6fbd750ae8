// The tracker's switches and per-thread keys: the parts that run at start-up, at shut-down and in
// the control signal's handler. What the allocation path reads is inline in the header.
#include "tracker/MemTrackControl.h"

#include <cstring>
#include <initializer_list>

#include "async_safe/log.h"
#include "platform/thread_keys.h"

std::atomic<std::uint32_t> mem_track_type{NATIVE};
// A key that was never created: the first one a process gets is 0, so 1 stands for "none yet".
pthread_key_t record_key = 1;
std::atomic<bool> is_plt_hook{false};
std::atomic<std::uint32_t> signal_bt_size{0};
std::atomic<std::uint32_t> signal_bt_type{0};

std::atomic<MemTrackControl*> MemTrackControl::instance_{nullptr};

MemTrackControl* MemTrackControl::CreateInstance() {
  MemTrackControl* instance = GetInstance();
  if (instance == nullptr) {
    instance = new MemTrackControl;
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
  for (pthread_key_t* key : {&debug_disable_key_, &plt_disable_key_, &record_key}) {
    const int error = pthread_key_create(key, nullptr);
    if (error != 0) {
      async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native", "pthread_key_create failed: %s",
                            std::strerror(error));
      return false;
    }
  }
  for (const pthread_key_t key : {debug_disable_key_, plt_disable_key_, record_key}) {
    if (!platform::ThreadKeyNeverAllocates(key)) {
      async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native",
                            "thread key %u comes too late: setting it would allocate",
                            static_cast<unsigned>(key));
      return false;
    }
    pthread_setspecific(key, nullptr);
  }
  keys_valid_.store(true, std::memory_order_release);
  return true;
}

void MemTrackControl::DeleteKeys() {
  // First of all, because a deleted key reads as null, which would mean "may record".
  if (!keys_valid_.exchange(false, std::memory_order_acq_rel)) return;
  for (const pthread_key_t key : {debug_disable_key_, plt_disable_key_, record_key}) {
    pthread_key_delete(key);
  }
}

void MemTrackControl::ConfigHookStatus(bool start, bool ever) {
  hook_ever_started_.store(ever, std::memory_order_release);
  hook_start_.store(start, std::memory_order_release);
}

void MemTrackControl::ConfigPltHookStatus(bool start, bool ever) {
  plt_hook_ever_started_.store(ever, std::memory_order_release);
  plt_hook_start_.store(start, std::memory_order_release);
}
