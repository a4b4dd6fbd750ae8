// Where the tracker's files are. Called by the report writer and the map reader.
#pragma once

#include <string>

namespace platform {

/// Path of the report file. Android: "/data/log/reliability/allocations_dump". Linux: the same
/// below the root directory that MEMLEAK_TRACKER_ROOT names ("%p" stands for the process id), and
/// the directories that lead to it are made when missing.
/// Allocates; not for signal handlers or the allocation path.
std::string ReportPath();

/// Path of the exception-log device. Android: "/dev/kxlog_exception"; Linux: the same below the
/// root directory. Allocates; not for signal handlers or the allocation path.
std::string ExceptionDevicePath();

}  // namespace platform
