// SPDX-License-Identifier: Apache-2.0
// The trend document, member by member.
#include "tools/export/trend_json.h"

#include <nlohmann/json.hpp>

namespace memleak {
namespace {

using nlohmann::json;

json GroupToJson(const GroupTrend& group) {
  json values = json::array();
  for (const GroupValue& value : group.values) {
    values.push_back(value.known ? json{{"count", value.count}, {"total", value.total}} : json());
  }
  json document = {{"kind", group.kind == GroupKind::kNative ? "native" : "java"},
                   {"size", group.size},
                   {"stack", group.stack},
                   {"libraries", group.libraries},
                   {"values", std::move(values)},
                   {"growth", nullptr},
                   {"line", nullptr}};
  if (group.Growth()) document["growth"] = *group.Growth();
  if (group.line) {
    document["line"] = {{"bytesPerMinute", group.line->slope},
                        {"margin95", nullptr},
                        {"rSquared", group.line->r_squared}};
    if (group.line->margin) document["line"]["margin95"] = *group.line->margin;
  }
  return document;
}

}  // namespace

json TrendsToJson(const std::string& process, const std::vector<SavedReport>& reports,
                  const std::vector<GroupTrend>& groups, const std::optional<TrendBreak>& broken) {
  json document = {{"format", "memleak-trend"}, {"version", 1},      {"process", process},
                   {"reports", json::array()},  {"broken", nullptr}, {"groups", json::array()}};
  for (const SavedReport& report : reports) {
    document["reports"].push_back({{"file", report.file},
                                   {"time", report.time},
                                   {"seconds", report.seconds},
                                   {"bytes", report.bytes},
                                   {"groups", report.groups},
                                   {"unlistedBytes", report.unlisted.bytes},
                                   {"unlistedGroups", report.unlisted.groups}});
  }
  if (broken) document["broken"] = {{"seconds", broken->seconds}, {"why", broken->why}};
  for (const GroupTrend& group : groups) document["groups"].push_back(GroupToJson(group));
  return document;
}

}  // namespace memleak
