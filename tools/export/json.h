// SPDX-License-Identifier: Apache-2.0
// Profiles as JSON documents for programs and for the page; docs/report-json.md describes them.
// Documents are on one line. Single-threaded.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tools/export/json_writer.h"
#include "tools/report/model.h"
#include "tools/report/trend.h"

namespace memleak {

inline constexpr const char* kJsonFormat = "memleak-profile";
inline constexpr int kJsonVersion = 1;

/// Write the members "report", "totals", "base" (both for an earlier report) and "libraries" of a
/// document.
void WriteReport(const Profile& profile, JsonWriter* json);
void WriteTotals(const Profile& profile, JsonWriter* json);
void WriteBase(const Profile& base, JsonWriter* json);
void WriteLibraries(const Profile& profile, JsonWriter* json);

/// Writes the document of one report.
void WriteProfileJson(const Profile& profile, std::ostream& out);

/// Writes the document of two reports: that of `after`, and for each group the figures of `before`.
void WriteDiffJson(const Profile& before, const Profile& after, std::ostream& out);

/// Writes the document of all reports of `process` and the trends of their groups;
/// docs/trend-json.md describes it.
void WriteTrendsJson(const std::string& process, const std::vector<SavedReport>& reports,
                     const std::vector<GroupTrend>& groups, const std::optional<TrendBreak>& broken,
                     std::ostream& out);

}  // namespace memleak
