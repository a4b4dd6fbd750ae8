// SPDX-License-Identifier: Apache-2.0
// The environment variables that configure the tracker on Linux, copied to where signal handlers
// can read them.
#pragma once

#include <cstddef>

namespace platform {

/// The size of a path with its NUL. It exceeds the kernel's PATH_MAX (4096), so a path that was cut
/// to fit is still too long and opening it fails with ENAMETOOLONG.
inline constexpr std::size_t kPathBytes = 4352;

enum class Variable {
  kRoot,        ///< MEMLEAK_TRACKER_ROOT: the root directory
  kLog,         ///< MEMLEAK_TRACKER_LOG: the log file, or "stderr"
  kProperties,  ///< MEMLEAK_TRACKER_PROPERTIES: the property file used if the root has none
};

/// Copies the current values of the variables. Later changes of the environment have no effect.
///
/// Runs when the library is loaded. Tests call it again after they change the environment, while no
/// other thread reads the values. Allocates nothing.
void CaptureEnvironment();

/// Returns the value of `variable`, or null if it was unset or empty. Valid until the next
/// CaptureEnvironment. Any thread. Async-signal-safe.
const char* CapturedValue(Variable variable);

/// Writes `pattern` and `suffix` to `path`, NUL-terminated and cut to fit. Every "%p" in `pattern`
/// is replaced by the current process id, in a forked child the child's. Returns the length. Any
/// thread. Async-signal-safe: allocates nothing, takes no lock.
std::size_t ExpandPath(const char* pattern, const char* suffix, char (&path)[kPathBytes]);

}  // namespace platform
