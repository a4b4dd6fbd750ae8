// SPDX-License-Identifier: Apache-2.0
// Profiles as JSON documents for programs and for the page; docs/report-json.md describes them.
// Single-threaded.
#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/diff.h"
#include "tools/report/model.h"
#include "tools/report/trend.h"

namespace memleak {

inline constexpr const char* kJsonFormat = "memleak-profile";
inline constexpr int kJsonVersion = 1;

/// Members "report", "totals" and "libraries" of a document.
nlohmann::json ReportToJson(const Profile& profile);
nlohmann::json TotalsToJson(const Profile& profile);
nlohmann::json LibrariesToJson(const Profile& profile);

/// The document of one report.
nlohmann::json ToJson(const Profile& profile);

/// The document of two reports: that of `after`, and for each group the figures of `before`.
nlohmann::json DiffToJson(const Profile& before, const Profile& after);

/// The document of all reports of `process` and the trends of their groups; docs/trend-json.md
/// describes it.
nlohmann::json TrendsToJson(const std::string& process, const std::vector<SavedReport>& reports,
                            const std::vector<GroupTrend>& groups,
                            const std::optional<TrendBreak>& broken);

/// Writes a document on one line. Replaces invalid UTF-8 in names and escapes control characters.
void WriteJson(const nlohmann::json& document, std::ostream& out);

/// Whether the file at `path` is a JSON document rather than a report.
bool IsJsonDocument(const std::string& path);

/// What a document describes.
struct Document {
  Profile profile;                   ///< of two reports the later one, with the groups of both
  std::optional<Profile> base;       ///< the earlier one of two reports, without groups
  std::vector<GroupChange> changes;  ///< of two reports: one for each group, without `after`
  nlohmann::json totals;             ///< member "totals"
};

/// The document at `path`, of one report or of two. Members that documents do not have stay empty:
/// addresses in files, reasons of damaged lines. Throws UserError when the document cannot be read
/// or is damaged.
Document LoadDocument(const std::string& path);

}  // namespace memleak
