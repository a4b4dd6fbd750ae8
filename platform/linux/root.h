// The directory under which the tracker's fixed paths lie on Linux.
//
// Used by the properties and the report's paths, on any thread.
#pragma once

#include <cstddef>

#include "platform/linux/environment.h"
#include "protocol/private_files.h"

namespace platform {

/// Writes the path of `below` (which begins with '/') under the root directory into `path`, cut to
/// fit, and returns its length. The root is what MEMLEAK_TRACKER_ROOT named when the program
/// started, "%p" in it standing for the id of the process that asks, or "/" when it was unset.
/// Allocates nothing, takes no lock: safe in a signal handler.
std::size_t RootedPath(const char* below, char (&path)[kPathBytes]);

/// Opens the file `below` (which begins with '/') under the root directory and writes its path into
/// `path`. Directories and file are made or refused as by protocol::OpenBelowRoot.
/// Returns a descriptor that the caller closes, or -1, errno and `refusal`, whose path is `path`.
/// Safe in a signal handler.
int OpenRooted(const char* below, protocol::Use use, char (&path)[kPathBytes],
               protocol::Refusal& refusal);

}  // namespace platform
