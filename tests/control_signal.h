// SPDX-License-Identifier: Apache-2.0
// Sends commands as a controller does.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#include "protocol/protocol.h"

inline bool SendControlSignal(pid_t process, std::uint64_t word, std::uint32_t parameter = 0) {
  siginfo_t info = protocol::MakeRecord(protocol::control_signal, {word, parameter});
  return syscall(SYS_rt_sigqueueinfo, process, protocol::control_signal, &info) == 0;
}
