// SPDX-License-Identifier: Apache-2.0
// Opens the tracker's files. Called by the report writer.
//
// The paths are fixed on Android. On Linux they are below the root directory that
// MEMLEAK_TRACKER_ROOT names, in which "%p" is the process id; files and directories that another
// user could have prepared are refused.
#pragma once

#include <cstdio>
#include <string>

namespace platform {

/// Opens the report file "/data/log/reliability/allocations_dump" for writing; creates or truncates
/// it. The caller closes the stream.
///
/// Returns null and sets errno if the file cannot be opened. Linux: creates missing directories,
/// uses mode 0600 and logs why a file is refused. Allocates; not for signal handlers or the
/// allocation path.
std::FILE* OpenReportFile();

/// Opens the exception-log device "/dev/kxlog_exception" for writing and sets `path` to its path.
/// The caller closes the descriptor.
///
/// Returns -1 and sets errno if it cannot be opened. Linux: does not block if it is a FIFO.
/// Allocates; not for signal handlers or the allocation path.
int OpenExceptionDevice(std::string& path);

}  // namespace platform
