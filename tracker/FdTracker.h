// SPDX-License-Identifier: Apache-2.0
// The separate tracker of file-descriptor leaks, libfdtrack.so, which is loaded when needed.
//
// For the control signal's handler, one command at a time.
#pragma once

#include <cstdint>

namespace fd_tracker {

/// Loads the library unless it is loaded. False, with a log line, when that fails.
bool Load();
/// Calls EnableFdHook. False, with a log line and the library unloaded, if it has no such function.
/// After Load.
bool Enable(std::uint32_t backtrace_size, std::uint32_t backtrace_type);
/// Calls DisableFdHook. False, with a log line, if the library is not loaded, or has no such
/// function and was unloaded for that.
bool Disable();
/// Calls DumpFdleakStackToFile. False as for Disable.
bool Dump();
/// Unloads the library if it is loaded.
void Unload();

}  // namespace fd_tracker
