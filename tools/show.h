// Prints a report as plain text for an 80-column terminal. Called by `show`; single-threaded.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

#include "tools/report_parser.h"
#include "tools/symbolizer.h"

namespace memleak {

/// What is said of a report without groups.
inline constexpr const char* kNothingHeld =
    "nothing recorded is still held; was recording on? (memleak on PID)";

/// From a mapping's name and the offset in it to its symbols, as Symbolizer::Resolve.
using Resolver = std::function<const Symbols&(const std::string&, std::uint64_t)>;

/// Prints the figures of `report`, found at `path`, and its `top` largest groups (0: all) with
/// their stacks, and says what is not shown.
void PrintReport(const Report& report, const std::string& path, std::size_t top,
                 const Resolver& resolve, std::ostream& out);

}  // namespace memleak
