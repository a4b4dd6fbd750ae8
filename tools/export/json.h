// A profile as one JSON document, for programs: docs/report-json.md describes it. Called by `show`
// and by whatever hands profiles to others; single-threaded.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

inline constexpr const char* kJsonFormat = "memleak-profile";
inline constexpr int kJsonVersion = 1;

/// The whole of `profile`. Bytes of names that are not UTF-8 are replaced when it is written out.
nlohmann::json ToJson(const Profile& profile);

/// The same with the groups of `groups` (indices into Profile::groups, in this order) alone, and
/// under "selection" what they hold and what is left out. Frames and libraries are all there.
nlohmann::json ToJson(const Profile& profile, const std::vector<std::size_t>& groups);

/// Parts of the document, for writers of related ones.
nlohmann::json ReportToJson(const Profile& profile);
nlohmann::json TotalsToJson(const Profile& profile);

/// Writes a document on one line, always as valid UTF-8 without control characters: those in names
/// are escaped.
void WriteJson(const nlohmann::json& document, std::ostream& out);

}  // namespace memleak
