// A profile as a document of the speedscope viewer's own file format. Called by `export`;
// single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// Writes one document with a profile of bytes and one of blocks (unit "none"), and two more for
/// Java-native stacks when there are any. Always valid UTF-8.
void WriteSpeedscope(const Profile& profile, std::ostream& out);

}  // namespace memleak
