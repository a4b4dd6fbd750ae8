// A report as a person names it on the command line. Called by the commands that read reports;
// single-threaded.
#pragma once

#include <string>

#include "tools/report/model.h"

namespace memleak {

/// The report that `given` stands for: itself, or the one below it when it is a root directory.
/// Throws UserError when there is none.
std::string FindReport(const std::string& given);

/// LoadProfile for what a person named: finds the report, names damaged lines on the error output,
/// and throws UserError for a truncated report unless `partial` is set.
Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options);

}  // namespace memleak
