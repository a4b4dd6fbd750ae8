// SPDX-License-Identifier: Apache-2.0
// A profile in the file format of the speedscope viewer. Used by `export`; single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// Writes one document with a profile of bytes and one of blocks (unit "none"), and two more for
/// Java-native stacks if there are any.
void WriteSpeedscope(const Profile& profile, std::ostream& out);

}  // namespace memleak
