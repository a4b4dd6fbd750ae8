// The name of the running program, for log lines.
#pragma once

namespace platform {

/// Short name of this program (bionic: getprogname; glibc: program_invocation_short_name).
/// Never null, owned by the C library. Any thread; safe in a signal handler.
const char* ProgramName();

}  // namespace platform
