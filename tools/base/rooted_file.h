// SPDX-License-Identifier: Apache-2.0
// Files of processes that have another root directory. Linux only; any thread.
#pragma once

#include <string>

namespace memleak {

/// Opens the absolute `path` as a process with the root directory `root` sees it: symbolic links,
/// also that of "..", do not lead out of `root`. `flags` are those of open(2); the last part of
/// `path` is not followed if it is a link. Returns a descriptor, which the caller closes, or -1
/// with errno set: ENOSYS on kernels before 5.6 and under emulators.
int OpenInRoot(const std::string& root, const std::string& path, int flags);

}  // namespace memleak
