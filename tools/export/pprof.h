// SPDX-License-Identifier: Apache-2.0
// A profile in the format of pprof. Used by `export`; single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// Writes the gzip-compressed protocol buffer. Each group is a sample with inuse_objects (count)
/// and inuse_space (bytes, the default). Its label "bytes" is the block size; Java-native groups
/// have the label "kind" with the value "java-native". A report has no addresses of the process, so
/// mappings get artificial ranges: an address is the start of its mapping plus the address in the
/// file, or the offset in the report if the file is missing. Returns false if `out` cannot be
/// written.
bool WritePprof(const Profile& profile, std::ostream& out);

}  // namespace memleak
