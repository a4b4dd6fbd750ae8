// Finds and opens the reports named on the command line. Called by the commands that read reports;
// single-threaded.
#pragma once

#include <string>

#include "tools/export/json_input.h"
#include "tools/report/model.h"

namespace memleak {

/// The path of the report: `given`, or the report in it if `given` is a root directory. Throws
/// UserError if there is none.
std::string FindReport(const std::string& given);

/// Finds the report and loads it with LoadProfile or LoadDocument. Prints warnings for damaged
/// lines, for libraries newer than the report, and for symbol directories that a document does not
/// need. Throws UserError for a truncated report unless `partial` is set.
Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options);

/// Two reports to compare.
struct ProfilePair {
  Profile before;
  Profile after;
};

/// OpenProfile for both. `old_options` override `options` for the earlier one.
ProfilePair OpenPair(const std::string& before, const std::string& after, bool partial,
                     const SymbolOptions& options, const OldSymbolOptions& old_options);

/// OpenProfile for the document at `path`. If it compares two reports, both are checked.
Document OpenDocument(const std::string& path, bool partial, const SymbolOptions& options);

}  // namespace memleak
