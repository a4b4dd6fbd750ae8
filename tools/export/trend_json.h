// SPDX-License-Identifier: Apache-2.0
// The reports of `watch` as a JSON document for programs; docs/trend-json.md describes it.
// Single-threaded.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/trend.h"

namespace memleak {

/// The document of all reports of `process` and the trends of their groups.
nlohmann::json TrendsToJson(const std::string& process, const std::vector<SavedReport>& reports,
                            const std::vector<GroupTrend>& groups,
                            const std::optional<TrendBreak>& broken);

}  // namespace memleak
