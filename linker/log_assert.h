// The end of a process in which the engine's own locks or keys no longer work.
//
// Called by the library index and the hook engine, on any thread.
#pragma once

namespace lumora::linker {

/// Formats as printf does, logs the text with tag "linkerlib" and ends the process.
[[noreturn]] void log_assert(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace lumora::linker
