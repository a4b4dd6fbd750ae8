// SPDX-License-Identifier: Apache-2.0
// The environment variables that configure the tracker on Linux, copied to where signal handlers
// can read them.
#pragma once

#include <cstddef>

#include "protocol/protocol.h"

namespace platform {

using protocol::kPathBytes;

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

/// As CaptureEnvironment, with the given values instead of the environment. Copies them, cut to
/// fit.
void CaptureValues(const char* root, const char* log, const char* properties);

/// Returns the captured values. They live as long as the process.
const protocol::Paths& CapturedPaths();

/// Makes CapturedValue use `paths`, which must live as long as the process. Null: no change.
void UsePaths(const protocol::Paths* paths);

/// Returns the value of `variable`, or null if it was unset or empty. Valid until the next
/// call of a function above. Any thread. Async-signal-safe.
const char* CapturedValue(Variable variable);

/// Writes `pattern` and `suffix` to `path`, NUL-terminated and cut to fit. Every "%p" in `pattern`
/// is replaced by the current process id, in a forked child the child's. Returns the length. Any
/// thread. Async-signal-safe: allocates nothing, takes no lock.
std::size_t ExpandPath(const char* pattern, const char* suffix, char (&path)[kPathBytes]);

}  // namespace platform
