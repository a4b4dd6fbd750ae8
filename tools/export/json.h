// SPDX-License-Identifier: Apache-2.0
// Profiles as JSON documents for programs and for the page; docs/report-json.md describes them.
// Single-threaded.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>

#include "tools/report/model.h"

namespace memleak {

inline constexpr const char* kJsonFormat = "memleak-profile";
inline constexpr int kJsonVersion = 1;

/// The document of one report.
nlohmann::json ToJson(const Profile& profile);

/// The document of two reports: that of `after`, and for each group the figures of `before`.
nlohmann::json DiffToJson(const Profile& before, const Profile& after);

/// Writes a document on one line. Replaces invalid UTF-8 in names and escapes control characters.
void WriteJson(const nlohmann::json& document, std::ostream& out);

}  // namespace memleak
