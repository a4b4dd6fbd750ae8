// The name of the running program, for log lines and reports.
//
// Called by the control signal's handler on whatever thread the signal came to, and by the dump
// thread.
#pragma once

namespace platform {

/// Short name of this program (bionic: getprogname; glibc: program_invocation_short_name).
/// Never null, owned by the C library. Any thread; safe in a signal handler.
const char* ProgramName();

}  // namespace platform
