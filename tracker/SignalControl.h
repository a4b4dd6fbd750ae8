// SPDX-License-Identifier: Apache-2.0
// The control channel: a real-time signal whose siginfo record carries commands.
//
// Installed by track_initialize and removed by track_finalize. The handler runs on the thread that
// the kernel delivers the signal to. Under the Linux loader that is the loader's control thread.
#pragma once

#include <signal.h>

/// Installs TrackSigaction for protocol::control_signal and saves the previous action. A failure is
/// only logged. From track_initialize.
void SignalActionsInit();
/// Restores the saved action; a failure is only logged. From track_finalize.
void SignalActionsRestore();

/// Switches all recording off without a report, removes all hooks and drops the records. On the
/// thread that carries out commands.
void SwitchOff();

/// The handler: carries out the commands in `info`. See protocol::ReadCommand for the record, which
/// the sender fills in, and protocol/kinds.h for the commands.
///
/// Runs on the thread that the kernel picks and does all work there, including allocation and
/// thread creation. Keeps errno. Commands never nest in one thread: the signal is blocked
/// while its handler runs.
void TrackSigaction(int signal, siginfo_t* info, void* context);
