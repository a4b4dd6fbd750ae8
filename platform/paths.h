// Where the tracker's files are, and how they are opened. Called by the report writer.
#pragma once

#include <cstdio>
#include <string>

namespace platform {

/// Opens the report file for writing, creating or emptying it. Null and errno when it cannot be
/// opened. Android: "/data/log/reliability/allocations_dump", with the process's default mode.
/// Linux: the same below the root directory that MEMLEAK_TRACKER_ROOT names ("%p" stands for the
/// process id), with mode 0600; directories that are missing are made, and a place that another
/// user could have prepared is refused, with one log line. The caller closes the stream.
/// Allocates; not for signal handlers or the allocation path.
std::FILE* OpenReportFile();

/// Opens the exception-log device write-only and sets `path` to its path. Returns a descriptor that
/// the caller closes, or -1 and errno. Android: "/dev/kxlog_exception". Linux: the same below the
/// root directory, checked like the report file and opened without waiting, since a FIFO may stand
/// there. Allocates; not for signal handlers or the allocation path.
int OpenExceptionDevice(std::string& path);

}  // namespace platform
