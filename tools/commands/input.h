// Finds and opens the reports named on the command line. Called by the commands that read reports;
// single-threaded.
#pragma once

#include <string>

#include "tools/export/json_input.h"
#include "tools/report/model.h"

namespace memleak {

/// The path of the report: `given`, or the report below it if that is a root directory. Throws
/// UserError if there is none.
std::string FindReport(const std::string& given);

/// Finds the report and loads it by LoadProfile or LoadDocument. Warns on the error output of
/// damaged lines, of libraries newer than the report, and of symbol directories given for a
/// document, which has its symbols. Throws UserError for a truncated report unless `partial` is
/// set.
Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options);

/// Two reports to compare.
struct ProfilePair {
  Profile before;
  Profile after;
};

/// OpenProfile for both. What is set in `old_options` replaces `options` for the earlier one.
ProfilePair OpenPair(const std::string& before, const std::string& after, bool partial,
                     const SymbolOptions& options, const OldSymbolOptions& old_options);

/// OpenProfile for the document at `path`. If it compares two reports, both are checked.
Document OpenDocument(const std::string& path, bool partial, const SymbolOptions& options);

}  // namespace memleak
