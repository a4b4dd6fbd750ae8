// SPDX-License-Identifier: Apache-2.0
// The loader replaces the state at a fork and when it makes the state file, so each function loads
// the pointer again.
#include "platform/published_state.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/linux/environment.h"
#include "protocol/protocol.h"
#include "protocol/state.h"

namespace platform {
namespace {

using protocol::KindState;
using protocol::Recording;
using protocol::State;

// Atomic: the tracker may start again while the thread of a report ends.
std::atomic<std::atomic<State*>*> g_state{nullptr};

State* Published() {
  const std::atomic<State*>* const state = g_state.load(std::memory_order_acquire);
  return state != nullptr ? state->load(std::memory_order_acquire) : nullptr;
}

/// Returns the loader's variable of this name; null if there is no loader.
template <typename T>
std::atomic<T>* LoaderVariable(const char* name) {
  return static_cast<std::atomic<T>*>(dlsym(RTLD_DEFAULT, name));
}

std::int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void Switch(KindState& state, Recording recording) {
  state.recording.store(recording);
  state.since_ns.store(Now());
}

/// Returns the entry of the pair, which is added if necessary; null if there is no room.
protocol::HookState* FindHook(State& state, const char* library, const char* function) {
  const std::uint32_t used = state.hook_states.load();
  for (std::uint32_t i = 0; i < used && i < protocol::kMaxHookStates; ++i) {
    protocol::HookState& hook = state.hooks[i];
    if (std::strcmp(hook.library, library) == 0 && std::strcmp(hook.function, function) == 0) {
      return &hook;
    }
  }
  if (used >= protocol::kMaxHookStates) return nullptr;
  protocol::HookState& hook = state.hooks[used];
  std::strncpy(hook.library, library, sizeof hook.library - 1);
  std::strncpy(hook.function, function, sizeof hook.function - 1);
  state.hook_states.store(used + 1);
  return &hook;
}

}  // namespace

void FindLoader(void (*switch_off)(), void (*count)()) {
  g_state.store(LoaderVariable<State*>(protocol::kStateVariable), std::memory_order_release);
  auto* const hook = LoaderVariable<void (*)()>(protocol::kSwitchOff);
  if (hook != nullptr) hook->store(switch_off);
  auto* const counter = LoaderVariable<protocol::CountRecords>(protocol::kRecordCounter);
  if (counter != nullptr) counter->store(count);
  const auto* const paths = LoaderVariable<const protocol::Paths*>(protocol::kPathsVariable);
  if (paths != nullptr) UsePaths(paths->load());
}

void PublishCount(std::uint64_t records, std::uint64_t dropped) {
  State* const state = Published();
  if (state == nullptr) return;
  state->records.store(records);
  state->dropped.store(dropped);
}

void PublishRecording(const protocol::Kind& kind, Recording recording) {
  State* const state = Published();
  if (state == nullptr) return;
  for (const protocol::Kind& other : protocol::kKinds) {
    KindState& shared = state->kinds[other.type];
    const bool shares = !kind.IsNative() && !other.IsNative() && recording != Recording::kOn &&
                        shared.recording.load() != Recording::kOff;
    if (&other == &kind || shares) Switch(shared, recording);
  }
}

void PublishClear() {
  State* const state = Published();
  if (state == nullptr) return;
  for (KindState& kind : state->kinds) {
    if (kind.recording.load() != Recording::kOff) kind.since_ns.store(Now());
  }
}

void PublishSettings(char type, std::uint32_t frames) {
  State* const state = Published();
  if (state == nullptr) return;
  state->unwind.store(static_cast<unsigned char>(type));
  state->depth.store(frames);
}

void PublishHook(const char* library, const char* function, int change, int error) {
  State* const state = Published();
  protocol::HookState* const hook =
      state != nullptr ? FindHook(*state, library, function) : nullptr;
  if (hook == nullptr) return;
  if (error == 0) hook->hooks.fetch_add(static_cast<std::uint32_t>(change));
  hook->error.store(error);
}

void PublishReportStart() {
  State* const state = Published();
  if (state == nullptr) return;
  state->report_thread.store(0);
  state->report_error.store(0);
  state->reports_started.fetch_add(1);
}

void PublishReportThread() {
  State* const state = Published();
  if (state != nullptr) state->report_thread.store(static_cast<int>(syscall(SYS_gettid)));
}

void PublishReportFailure(int error, const char* format, ...) {
  State* const state = Published();
  if (state == nullptr || state->report_error.load() != 0) return;
  const int saved_errno = errno;
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(state->report_reason, sizeof state->report_reason, format, arguments);
  va_end(arguments);
  state->report_error.store(error != 0 ? error : EIO);
  errno = saved_errno;
}

void PublishReportEnd(std::uint64_t dropped) {
  State* const state = Published();
  if (state == nullptr) return;
  state->dropped.store(dropped);
  state->reports_ended.fetch_add(1);
}

}  // namespace platform
