// SPDX-License-Identifier: Apache-2.0
// The separate tracker of file-descriptor leaks, libfdtrack.so, which is loaded when needed.
//
// For the control signal's handler, one command at a time.
#pragma once

#include <cstdint>

namespace fd_tracker {

/// Loads the library unless it is loaded. Returns false, logged, if that fails.
bool Load();
/// Calls EnableFdHook. If the library has no such function, logs that, unloads the library and
/// returns false. Call Load first.
bool Enable(std::uint32_t backtrace_size, std::uint32_t backtrace_type);
/// Calls DisableFdHook. Returns false, logged, if the library is not loaded. If it has no such
/// function, also unloads it.
bool Disable();
/// Calls DumpFdleakStackToFile. Returns as Disable does.
bool Dump();
/// Unloads the library if it is loaded.
void Unload();

}  // namespace fd_tracker
