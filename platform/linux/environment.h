// The environment variables that steer the tracker on Linux, kept where a signal handler can read
// them.
//
// Used by the root directory, the properties and the log, on any thread.
#pragma once

#include <cstddef>

namespace platform {

/// Room for a path, its NUL included. More than the kernel's PATH_MAX (4096), so that a value that
/// is too long is still too long after it was cut to fit, and opening it fails cleanly.
inline constexpr std::size_t kPathBytes = 4352;

enum class Variable {
  kRoot,        ///< MEMLEAK_TRACKER_ROOT: the root directory
  kLog,         ///< MEMLEAK_TRACKER_LOG: the log file, or "stderr"
  kProperties,  ///< MEMLEAK_TRACKER_PROPERTIES: the property file used when the root has none
};

/// Copies the variables' present values; later changes of the environment go unseen.
///
/// Runs by itself when the library is loaded. Call it again only while no other thread can be
/// reading, as a test does after it has changed the environment. Allocates nothing.
void CaptureEnvironment();

/// The captured value of `variable`, or null when it was unset or empty. Owned by this file; stays
/// until the next CaptureEnvironment. Safe in a signal handler.
const char* CapturedValue(Variable variable);

/// Writes `pattern`, every "%p" in it replaced by this process's id as of now, and `suffix` behind
/// it into `path`, NUL-terminated and cut to fit. A forked child gets its own id.
/// Returns the length. Allocates nothing, takes no lock: safe in a signal handler.
std::size_t ExpandPath(const char* pattern, const char* suffix, char (&path)[kPathBytes]);

}  // namespace platform
