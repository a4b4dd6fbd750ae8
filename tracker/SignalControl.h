// The control channel: a real-time signal whose siginfo record carries commands.
//
// Installed by track_initialize and taken back by track_finalize. The handler itself runs on
// whichever thread the kernel delivers the signal to; under the Linux loader on its control thread.
#pragma once

#include <signal.h>

/// Real-time signal that an outside controller sends.
inline constexpr int control_signal = 44;

/// Installs TrackSigaction for the control signal and keeps the action that was in force. A
/// failure is logged and otherwise ignored. From track_initialize.
void SignalActionsInit();
/// Puts the kept action back; a failure is logged. From track_finalize.
void SignalActionsRestore();

/// The handler: carries out the commands in `info`, a record that the sender has filled itself:
/// the 64-bit control word at byte 16, a mask of commands, and the 32-bit parameter word at
/// byte 24 (backtrace size in its upper half, backtrace type in its lower).
///
/// Runs on the thread that the kernel picks and does all work there, allocation and thread creation
/// included. Keeps errno. The signal is blocked meanwhile, so commands never nest in one thread.
void TrackSigaction(int signal, siginfo_t* info, void* context);
