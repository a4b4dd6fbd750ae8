// SPDX-License-Identifier: Apache-2.0
// The name of the running program, for log lines and reports.
#pragma once

namespace platform {

/// Returns the program's short name (bionic: getprogname; glibc: program_invocation_short_name).
/// Never null; the C library owns it. Any thread. Async-signal-safe.
const char* ProgramName();

}  // namespace platform
