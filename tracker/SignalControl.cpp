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

Next NativeOn(const ControlMessage& message) {
  SetTrackType(NATIVE);
  SetSignalBacktrace(message.parameter_word >> 16, message.parameter_word & 0xFFFF);
  MemTrackControl* control = MemTrackControl::GetInstance();
  control->ConfigHookStatus(true, true);
  // The line reports the settings in force, which come from the properties, not the message.
  const char* state = StateName(control->GetHookStart());
  const std::uint32_t size = PointerData::GetMaxBacktraceNum();
  const auto type = static_cast<unsigned char>(GetBacktraceTypeFromProp());
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "set hook to:%s, btsize:%u, btType:%c", state,
                        size, type);
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

/// Drops the records of every kind and leaves the switches as they are.
Next NativeClear(const ControlMessage& /*message*/) {
  SetTrackType(NATIVE);
  SetSignalBacktrace(0, 0);
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "native clear:%s", platform::ProgramName());
  DebugData::Initialize(DebugData::GetInstance());
  return Next::kGoOn;
}

template <std::uint32_t kSlot>
Next RunCallback(const ControlMessage& /*message*/) {
  const MemTrackControl::Tracker callback = MemTrackControl::GetInstance()->tracker(kSlot);
  if (callback != nullptr) callback();
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
    {Bit(4), NativeOn},    {Bit(5), NativePause},    {Bit(6), NativeStopAndReport},
    {Bit(7), NativeClear}, {Bit(1), RunCallback<4>}, {Bit(2), RunCallback<5>},
    // The commands of the hooked kinds and of the descriptor tracker belong here, in the order
    // mmap 8, 9, 10, 11; descriptors 20, 21, 22, 23; ion 12, 13, 14, 15; gpu 16, 17, 18, 19.
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
