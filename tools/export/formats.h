// SPDX-License-Identifier: Apache-2.0
// A profile in the formats of other programs. Errors are those of the stream. Used by `export`;
// single-threaded.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// What is counted.
enum class Measure : std::uint8_t { kBytes, kBlocks };

/// Writes folded stacks, for flame graph programs: a line for each stack with its names, outermost
/// first, joined by ';' and escaped by PercentEscape, a blank, and the sum over its groups.
/// Java-native stacks begin with "[java-native]", since their blocks are not part of the native
/// total. Lines are in order of first appearance. Stacks with a sum of 0 are omitted.
void WriteFolded(const Profile& profile, Measure measure, std::ostream& out);

/// Writes a file of the speedscope viewer with a profile of bytes and one of blocks (unit "none"),
/// and two more for Java-native stacks if there are any.
void WriteSpeedscope(const Profile& profile, std::ostream& out);

/// Writes the gzip-compressed protocol buffer of pprof. Each group is a sample with inuse_objects
/// (count) and inuse_space (bytes, the default). Its label "bytes" is the block size; Java-native
/// groups have the label "kind" with the value "java-native". A report has no addresses of the
/// process, so mappings get artificial ranges: an address is the start of its mapping plus the
/// address in the file, or the offset in the report if the file is missing.
void WritePprof(const Profile& profile, std::ostream& out);

}  // namespace memleak
