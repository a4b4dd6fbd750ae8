// A report as a person names it on the command line. Called by the commands that read reports;
// single-threaded.
#pragma once

#include <string>

#include "tools/report/model.h"

namespace memleak {

/// The report that `given` stands for: itself, or the one below it when it is a root directory.
/// Throws UserError when there is none.
std::string FindReport(const std::string& given);

/// What to do when a library's file is newer than the report.
inline constexpr const char* kNewerRemedy =
    "keep the files of that time and name them by --sysroot";
/// The same for the earlier of two reports.
inline constexpr const char* kNewerOldRemedy =
    "name the files of that time by --old-symbols or --old-sysroot";

/// LoadProfile or LoadDocument for what a person named: finds the report, names damaged lines on
/// the error output and files that are newer than it, with `newer_remedy`, and throws UserError for
/// a truncated report unless `partial` is set.
Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options,
                    const std::string& newer_remedy = kNewerRemedy);

}  // namespace memleak
