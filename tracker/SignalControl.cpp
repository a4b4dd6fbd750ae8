// The control channel: from a received signal to the tracker's switches.
//
// Installed by track_initialize. The handler runs on whichever thread the kernel picks; entries on
// other threads see its flag stores without a lock.
#include "tracker/SignalControl.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "platform/program_name.h"
#include "records/PointerData.h"
#include "tracker/DebugData.h"
#include "tracker/DumpThread.h"
#include "tracker/FdTracker.h"
#include "tracker/HookTargets.h"
#include "tracker/MemTrackControl.h"

namespace {

constexpr char kLogTag[] = "MemLeak.Native";

/// Where the words lie in the siginfo record; a sender fills it with rt_sigqueueinfo.
constexpr std::size_t kControlWordOffset = 16;
constexpr std::size_t kParameterWordOffset = 24;

/// What the sender asked for.
struct ControlMessage {
  std::uint64_t control_word;
  std::uint32_t parameter_word;
};

/// Whether the remaining commands of the same signal are still carried out.
enum class Next { kGoOn, kStop };

struct sigaction saved_action;

const char* StateName(bool on) {
  return on ? "true" : "false";
}

void SetTrackType(MemTrackType type) {
  mem_track_type.store(type, std::memory_order_release);
}

void SetSignalBacktrace(std::uint32_t size, std::uint32_t type) {
  signal_bt_size.store(size, std::memory_order_release);
  signal_bt_type.store(type, std::memory_order_release);
}

void SetSignalBacktrace(const ControlMessage& message) {
  SetSignalBacktrace(message.parameter_word >> 16, message.parameter_word & 0xFFFF);
}

/// The line reports the settings in force, which come from the properties, not the message.
void LogOn(const char* kind, const char* state) {
  const std::uint32_t size = PointerData::GetMaxBacktraceNum();
  const auto type = static_cast<unsigned char>(GetBacktraceTypeFromProp());
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "set %shook to:%s, btsize:%u, btType:%c", kind,
                        state, size, type);
}

/// Drops the records of every kind and leaves the switches as they are.
void ClearRecords() {
  DebugData::Initialize(DebugData::GetInstance());
}

Next NativeOn(const ControlMessage& message) {
  SetTrackType(NATIVE);
  SetSignalBacktrace(message);
  MemTrackControl* control = MemTrackControl::GetInstance();
  control->ConfigHookStatus(true, true);
  LogOn("", StateName(control->GetHookStart()));
  return Next::kGoOn;
}

/// Records are kept, and still retired on free.
Next NativePause(const ControlMessage& /*message*/) {
  SetTrackType(NATIVE);
  MemTrackControl* control = MemTrackControl::GetInstance();
  control->ConfigHookStatus(false, true);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "set hook to:%s",
                        StateName(control->GetHookStart()));
  return Next::kGoOn;
}

Next NativeStopAndReport(const ControlMessage& /*message*/) {
  SetTrackType(NATIVE);
  MemTrackControl::GetInstance()->ConfigHookStatus(false, false);
  AsyncReport();
  return Next::kGoOn;
}

Next NativeClear(const ControlMessage& /*message*/) {
  SetTrackType(NATIVE);
  SetSignalBacktrace(0, 0);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "native clear:%s", platform::ProgramName());
  ClearRecords();
  return Next::kGoOn;
}

template <std::uint32_t kSlot>
Next RunCallback(const ControlMessage& /*message*/) {
  const MemTrackControl::Tracker callback = MemTrackControl::GetInstance()->tracker(kSlot);
  if (callback != nullptr) callback();
  return Next::kGoOn;
}

constexpr const char* KindName(MemTrackType kind) {
  return kind == MMAP ? "mmap" : kind == ION ? "ion" : "gpu";
}

/// Only mmap's pause, stop and clear set the type: that is wanted.
template <MemTrackType kKind>
void SetTrackTypeOfMmap() {
  if (kKind == MMAP) SetTrackType(kKind);
}

/// Needs hook targets, and one of them hooked. What fails leaves the type changed and the switches
/// as they were. The parameter word is not read: that is wanted.
template <MemTrackType kKind>
Next PltOn(const ControlMessage& /*message*/) {
  SetTrackType(kKind);
  if (!GetHookParams()) return Next::kStop;
  if (!hook_by_plt()) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "all plt hook failed!");
    return Next::kStop;
  }
  MemTrackControl* control = MemTrackControl::GetInstance();
  control->ConfigPltHookStatus(true, true);
  LogOn(KindName(kKind), StateName(control->GetPltHookStart()));
  return Next::kGoOn;
}

/// The hooks stay; their proxies forward without recording.
template <MemTrackType kKind>
Next PltPause(const ControlMessage& /*message*/) {
  SetTrackTypeOfMmap<kKind>();
  MemTrackControl* control = MemTrackControl::GetInstance();
  control->ConfigPltHookStatus(false, true);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "set %shook to:%s", KindName(kKind),
                        StateName(control->GetPltHookStart()));
  return Next::kGoOn;
}

template <MemTrackType kKind>
Next PltStopAndReport(const ControlMessage& /*message*/) {
  SetTrackTypeOfMmap<kKind>();
  unhook_by_plt();
  MemTrackControl::GetInstance()->ConfigPltHookStatus(false, false);
  AsyncReport();
  return Next::kGoOn;
}

template <MemTrackType kKind>
Next PltClear(const ControlMessage& /*message*/) {
  SetTrackTypeOfMmap<kKind>();
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "%s clear:%s", KindName(kKind),
                        platform::ProgramName());
  ClearRecords();
  return Next::kGoOn;
}

Next FdOn(const ControlMessage& message) {
  if (!fd_tracker::Load()) return Next::kStop;
  SetSignalBacktrace(message);
  return fd_tracker::Enable(signal_bt_size, signal_bt_type) ? Next::kGoOn : Next::kStop;
}

Next FdOff(const ControlMessage& /*message*/) {
  return fd_tracker::Disable() ? Next::kGoOn : Next::kStop;
}

/// The other way round: a dump that worked ends the signal's commands, one that failed does not.
/// That is wanted.
Next FdDump(const ControlMessage& /*message*/) {
  return fd_tracker::Dump() ? Next::kStop : Next::kGoOn;
}

Next FdClear(const ControlMessage& /*message*/) {
  SetSignalBacktrace(0, 0);
  ClearRecords();
  fd_tracker::Unload();
  return Next::kGoOn;
}

struct Command {
  std::uint64_t mask;
  Next (*run)(const ControlMessage& message);
};

constexpr std::uint64_t Bit(unsigned number) {
  return std::uint64_t{1} << number;
}

/// The commands in the order in which they are carried out, whatever the order of their bits. Bits
/// that stand for no command mean nothing.
constexpr Command kCommands[] = {
    {Bit(4), NativeOn},                 //
    {Bit(5), NativePause},              //
    {Bit(6), NativeStopAndReport},      //
    {Bit(7), NativeClear},              //
    {Bit(1), RunCallback<4>},           //
    {Bit(2), RunCallback<5>},           //
    {Bit(8), PltOn<MMAP>},              //
    {Bit(9), PltPause<MMAP>},           //
    {Bit(10), PltStopAndReport<MMAP>},  //
    {Bit(11), PltClear<MMAP>},          //
    {Bit(20), FdOn},                    //
    {Bit(21), FdOff},                   //
    {Bit(22), FdDump},                  //
    {Bit(23), FdClear},                 //
    {Bit(12), PltOn<ION>},              //
    {Bit(13), PltPause<ION>},           //
    {Bit(14), PltStopAndReport<ION>},   //
    {Bit(15), PltClear<ION>},           //
    {Bit(16), PltOn<GPU>},              //
    {Bit(17), PltPause<GPU>},           //
    {Bit(18), PltStopAndReport<GPU>},   //
    {Bit(19), PltClear<GPU>},           //
};

ControlMessage ReadMessage(const siginfo_t* info) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(info);
  ControlMessage message{};
  std::memcpy(&message.control_word, bytes + kControlWordOffset, sizeof message.control_word);
  std::memcpy(&message.parameter_word, bytes + kParameterWordOffset, sizeof message.parameter_word);
  return message;
}

}  // namespace

void TrackSigaction(int signal, siginfo_t* info, void* /*context*/) {
  const int saved_errno = errno;
  const ControlMessage message = ReadMessage(info);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "received_sig %d;addr:%p", signal,
                        reinterpret_cast<void*>(message.control_word));
  for (const Command& command : kCommands) {
    if ((message.control_word & command.mask) == 0) continue;
    if (command.run(message) == Next::kStop) break;
  }
  errno = saved_errno;
}

void SignalActionsInit() {
  struct sigaction action = {};
  action.sa_sigaction = TrackSigaction;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, control_signal);
  if (sigaction(control_signal, &action, &saved_action) < 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "Failed to register_signal handler errmsg: %s", std::strerror(errno));
  }
}

void SignalActionsRestore() {
  if (sigaction(control_signal, &saved_action, nullptr) < 0) {
    // "register signal" here and "register_signal" above: both spellings are wanted.
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "Failed to register signal handler errmsg: %s", std::strerror(errno));
  }
}
