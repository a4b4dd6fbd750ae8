// SPDX-License-Identifier: Apache-2.0
// Ends the process if the engine's own locks or keys fail.
//
// Called by the library index and the hook engine, on any thread.
#pragma once

namespace lumora::linker {

/// Logs a printf-style message with tag "linkerlib" and ends the process.
[[noreturn]] void log_assert(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace lumora::linker
