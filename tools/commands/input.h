// SPDX-License-Identifier: Apache-2.0
// Finds and opens the reports named on the command line. Used by the commands that read reports;
// single-threaded.
#pragma once

#include <string>

#include "tools/export/json_input.h"
#include "tools/report/model.h"

namespace memleak {

/// The path of the report: `given`, or the report below it if it is a root directory. Throws
/// UserError if a root directory has none.
std::string FindReport(const std::string& given);

/// Loads the report, or the JSON document of one. Warns on the standard error of damaged lines, of
/// libraries newer than the report, and of symbol directories given for a document. Throws
/// UserError if it cannot be read, and if it is truncated unless `partial` is set.
Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options);

/// Two reports to compare.
struct ProfilePair {
  Profile before;
  Profile after;
};

/// OpenProfile for both reports. Members set in `old_options` replace those of `options` for the
/// earlier one.
ProfilePair OpenPair(const std::string& before, const std::string& after, bool partial,
                     const SymbolOptions& options, const OldSymbolOptions& old_options);

/// The document at `path`, of one report or of two. Warns and throws like OpenProfile.
Document OpenDocument(const std::string& path, bool partial, const SymbolOptions& options);

}  // namespace memleak
