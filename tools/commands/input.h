// SPDX-License-Identifier: Apache-2.0
// Finds and opens the reports named on the command line. Used by the commands that read reports;
// single-threaded.
#pragma once

#include <string>
#include <utility>

#include "tools/export/document.h"
#include "tools/report/model.h"
#include "tools/symbols/symbol_options.h"

namespace memleak {

/// The path of the report: `given`, or the report below it if it is a root directory, or the latest
/// report of the process with that id, if there is no such file. Throws UserError if there is none,
/// and if the report in the directory of the process is of another process.
std::string FindReport(const std::string& given);

/// How reports are read.
struct ReadOptions {
  SymbolOptions symbols = {.progress = true};
  SymbolOptions old_symbols;  ///< directories set here replace those of `symbols` for the earlier
                              ///< of two reports
  bool partial = false;       ///< accept truncated reports
};

/// Loads the report, or the JSON document of one. Warns on the standard error of damaged lines, of
/// libraries newer than the report, and of symbol directories given for a document. Throws
/// UserError if it cannot be read, and if it is truncated unless `partial` is set.
Profile OpenProfile(const std::string& given, const ReadOptions& options);

/// OpenProfile for an earlier and a later report.
std::pair<Profile, Profile> OpenPair(const std::string& before, const std::string& after,
                                     const ReadOptions& options);

/// The document at `path`, of one report or of two. Warns and throws like OpenProfile.
Document OpenDocument(const std::string& path, const ReadOptions& options);

}  // namespace memleak
