// SPDX-License-Identifier: Apache-2.0
// The directory that contains the tracker's files on Linux.
#pragma once

#include <cstddef>

#include "platform/linux/environment.h"
#include "protocol/private_files.h"

namespace platform {

/// Writes the root directory followed by `below`, which starts with '/', to `path`, NUL-terminated
/// and cut to fit. Returns the length. The root directory is the captured value of
/// MEMLEAK_TRACKER_ROOT with "%p" expanded, or "/" if the variable was unset.
/// Any thread. Async-signal-safe: allocates nothing, takes no lock.
std::size_t RootedPath(const char* below, char (&path)[kPathBytes]);

/// Opens the file `below`, which starts with '/', in the root directory with
/// protocol::OpenBelowRoot and writes its path to `path`.
/// Returns a descriptor that the caller closes, or -1 and sets errno and `refusal`, which refers to
/// `path`. Any thread. Async-signal-safe.
int OpenRooted(const char* below, protocol::Use use, char (&path)[kPathBytes],
               protocol::Refusal& refusal);

}  // namespace platform
