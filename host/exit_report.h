// The report that a process writes when it ends, if its environment asks for one.
//
// Called by the loader's exit handler.
#pragma once

#include "host/control_thread.h"

namespace host {

/// Waits while a report that an earlier command asked for is being written or waits for its turn,
/// 10 seconds at most: the end of the process would cut it off.
void WaitForEarlierReports();

/// Removes the old report of this process, has the control thread carry out `command` and waits
/// until the new report is complete. One line on stderr says why there is none: `command` has no
/// report bit, or the file cannot be written (both found out beforehand), the dump thread ends
/// without a complete report, or 60 seconds have passed.
void ReportAtExit(const Command& command);

}  // namespace host
