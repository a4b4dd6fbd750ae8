// A profile in the format of the pprof tools. Called by `export`; single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// Writes the gzip'ed protocol buffer: a sample for each group, with inuse_objects (count) and
/// inuse_space (bytes, the default), the size of a block as the label "bytes", and "java-native" as
/// the label "kind" of such groups. A report holds no addresses of the process, so that mappings
/// get ranges of their own: an address is its mapping's start plus the address in the file (plus
/// the offset in the report where the file is missing). Returns false when `out` cannot be written.
bool WritePprof(const Profile& profile, std::ostream& out);

}  // namespace memleak
