// SPDX-License-Identifier: Apache-2.0
// The control channel: from a received signal to the tracker's switches.
//
// The handler runs on whichever thread the kernel picks. Entries on other threads see its flag
// stores without a lock.
#include "tracker/SignalControl.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "platform/program_name.h"
#include "platform/published_state.h"
#include "protocol/kinds.h"
#include "protocol/protocol.h"
#include "protocol/state.h"
#include "records/PointerData.h"
#include "records/profile.h"
#include "tracker/DebugData.h"
#include "tracker/DumpThread.h"
#include "tracker/FdTracker.h"
#include "tracker/HookTargets.h"
#include "tracker/control/MemTrackControl.h"

namespace {

using protocol::Command;
using protocol::Kind;
using protocol::kLogTag;
using protocol::Recording;

struct sigaction saved_action;

const char* StateName(bool on) {
  return on ? "true" : "false";
}

void SelectKind(const Kind& kind) {
  mem_track_type.store(kind.type, std::memory_order_release);
}

void SetSignalBacktrace(std::uint32_t parameter) {
  signal_bt_size.store(protocol::BacktraceSizeOf(parameter), std::memory_order_release);
  signal_bt_type.store(protocol::BacktraceTypeOf(parameter), std::memory_order_release);
}

void SetSwitches(const Kind& kind, bool start, bool ever) {
  MemTrackControl* control = MemTrackControl::GetInstance();
  if (kind.IsNative()) {
    control->ConfigHookStatus(start, ever);
  } else {
    control->ConfigPltHookStatus(start, ever);
  }
}

/// Returns the start flag of the kind, to log it after a store.
bool IsOn(const Kind& kind) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  return kind.IsNative() ? control->GetHookStart() : control->GetPltHookStart();
}

/// Drops the records of every kind. Does not change the switches.
void ClearRecords() {
  DebugData::Initialize(DebugData::GetInstance());
  profile::NoteClear();
  platform::PublishClear();
}

/// Returns false if nothing is hooked; then the kind is selected and the switches are unchanged.
bool Start(const Kind& kind, const Command& command) {
  SelectKind(kind);
  if (kind.IsNative()) {
    SetSignalBacktrace(command.parameter);
  } else {
    // Intentional: the parameter word is not read.
    if (!GetHookParams()) return false;
    if (!hook_by_plt()) {
      async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "%s", protocol::kNothingHooked);
      return false;
    }
  }
  profile::NoteOn(kind.type);
  SetSwitches(kind, true, true);
  platform::PublishRecording(kind, Recording::kOn);
  // The settings in force, which come from the properties, not from the command.
  const std::uint32_t size = PointerData::GetMaxBacktraceNum();
  const auto type = static_cast<unsigned char>(GetBacktraceTypeFromProp());
  platform::PublishSettings(static_cast<char>(type), size);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "%s%s, btsize:%u, btType:%c", kind.switch_line,
                        StateName(IsOn(kind)), size, type);
  return true;
}

/// Keeps the records. Those of the heap are still removed on free; hooks stay and do nothing.
void Pause(const Kind& kind) {
  SetSwitches(kind, false, true);
  platform::PublishRecording(kind, Recording::kPaused);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "%s%s", kind.switch_line, StateName(IsOn(kind)));
}

void StopAndReport(const Kind& kind) {
  if (!kind.IsNative()) unhook_by_plt();
  SetSwitches(kind, false, false);
  platform::PublishRecording(kind, Recording::kOff);
  AsyncReport();
}

void Clear(const Kind& kind) {
  if (kind.IsNative()) SetSignalBacktrace(0);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "%s clear:%s", kind.name,
                        platform::ProgramName());
  ClearRecords();
}

/// Runs the commands for one kind. Returns false if one of them ends the signal's commands.
bool RunKind(const Kind& kind, const Command& command) {
  if ((command.word & kind.On()) != 0 && !Start(kind, command)) return false;
  const std::uint64_t others = command.word & (kind.Pause() | kind.Report() | kind.Clear());
  if (others == 0) return true;
  // Intentional: for some kinds only "on" selects the kind.
  if (kind.always_selects) SelectKind(kind);
  if ((others & kind.Pause()) != 0) Pause(kind);
  if ((others & kind.Report()) != 0) StopAndReport(kind);
  if ((others & kind.Clear()) != 0) Clear(kind);
  return true;
}

void RunCallback(std::uint32_t slot) {
  const MemTrackControl::Tracker callback = MemTrackControl::GetInstance()->tracker(slot);
  if (callback != nullptr) callback();
}

bool StartFdTracker(const Command& command) {
  if (!fd_tracker::Load()) return false;
  SetSignalBacktrace(command.parameter);
  return fd_tracker::Enable(signal_bt_size, signal_bt_type);
}

/// Runs the commands for file descriptors. Returns false if one of them ends the signal's commands.
bool RunFdCommands(const Command& command) {
  if ((command.word & protocol::kFdOn) != 0 && !StartFdTracker(command)) return false;
  if ((command.word & protocol::kFdOff) != 0 && !fd_tracker::Disable()) return false;
  // Intentional: a successful dump ends the commands, a failed dump does not.
  if ((command.word & protocol::kFdDump) != 0 && fd_tracker::Dump()) return false;
  if ((command.word & protocol::kFdClear) != 0) {
    SetSignalBacktrace(0);
    ClearRecords();
    fd_tracker::Unload();
  }
  return true;
}

/// Carries out the commands in a fixed order, for any word. Ignores unknown bits.
void Run(const Command& command) {
  for (const Kind& kind : protocol::kKinds) {
    if (!RunKind(kind, command)) return;
    if (kind.type == protocol::NATIVE) {
      if ((command.word & protocol::kRunCallback4) != 0) RunCallback(4);
      if ((command.word & protocol::kRunCallback5) != 0) RunCallback(5);
    }
    if (kind.type == protocol::MMAP && !RunFdCommands(command)) return;
  }
}

}  // namespace

void TrackSigaction(int signal, siginfo_t* info, void* /*context*/) {
  const int saved_errno = errno;
  DebugData::GetInstance()->NoteCommand();
  const Command command = protocol::ReadCommand(*info);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "received_sig %d;addr:%p", signal,
                        reinterpret_cast<void*>(command.word));
  Run(command);
  errno = saved_errno;
}

void SwitchOff() {
  for (const Kind& kind : protocol::kKinds) {
    SetSwitches(kind, false, false);
    platform::PublishRecording(kind, Recording::kOff);
  }
  unhook_all_by_plt();
  ClearRecords();
}

void SignalActionsInit() {
  struct sigaction action = {};
  action.sa_sigaction = TrackSigaction;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, protocol::control_signal);
  if (sigaction(protocol::control_signal, &action, &saved_action) < 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "Failed to register_signal handler errmsg: %s", std::strerror(errno));
  }
}

void SignalActionsRestore() {
  if (sigaction(protocol::control_signal, &saved_action, nullptr) < 0) {
    // Intentional: "register signal" here, "register_signal" above.
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "Failed to register signal handler errmsg: %s", std::strerror(errno));
  }
}
