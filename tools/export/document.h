// SPDX-License-Identifier: Apache-2.0
// Reads the documents that json.h writes. Single-threaded.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/report/diff.h"
#include "tools/report/model.h"

namespace memleak {

/// Whether the file at `path` is a JSON document rather than a report.
bool IsJsonDocument(const std::string& path);

/// What a document describes.
struct Document {
  Profile profile;                   ///< of two reports the later one, with the groups of both
  std::optional<Profile> base;       ///< the earlier one of two reports, without groups
  std::vector<GroupChange> changes;  ///< of two reports: one for each group, without `after`
  std::string totals;                ///< the JSON of member "totals"
};

/// The document at `path`, of one report or of two. Members that documents do not have stay empty:
/// addresses in files, reasons of damaged lines. Throws UserError when the document cannot be read
/// or is damaged.
Document LoadDocument(const std::string& path);

}  // namespace memleak
