// A report as a person names it on the command line. Called by the commands that read reports;
// single-threaded.
#pragma once

#include <string>

#include "tools/export/json_input.h"
#include "tools/report/model.h"

namespace memleak {

/// The report that `given` stands for: itself, or the one below it when it is a root directory.
/// Throws UserError when there is none.
std::string FindReport(const std::string& given);

/// LoadProfile or LoadDocument for what a person named: finds the report, names on the error output
/// damaged lines, files that are newer than it, and directories given in vain, since a document
/// brings its symbols along. Throws UserError for a truncated report unless `partial` is set.
Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options);

/// Two reports that are to be compared.
struct ProfilePair {
  Profile before;
  Profile after;
};

/// OpenProfile for both. `old_options` are for the earlier one alone, where they are given.
ProfilePair OpenPair(const std::string& before, const std::string& after, bool partial,
                     const SymbolOptions& options, const OldSymbolOptions& old_options);

/// OpenProfile for the document at `path`, which may be of two reports: both are checked then.
Document OpenDocument(const std::string& path, bool partial, const SymbolOptions& options);

}  // namespace memleak
