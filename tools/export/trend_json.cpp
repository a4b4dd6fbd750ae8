// The trend document.
#include "tools/export/trend_json.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/export/json.h"

namespace memleak {
namespace {

nlohmann::json ToJson(const std::optional<GroupValue>& value) {
  if (!value) return nullptr;
  return {{"count", value->count}, {"total", value->total}};
}

nlohmann::json ToJson(const GroupTrend& group) {
  nlohmann::json values = nlohmann::json::array();
  for (const std::optional<GroupValue>& value : group.values) values.push_back(ToJson(value));
  nlohmann::json document = {{"kind", group.kind == GroupKind::kNative ? "native" : "java"},
                             {"size", group.size},
                             {"stack", group.stack},
                             {"libraries", group.libraries},
                             {"values", values},
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

void WriteTrends(const std::string& process, const std::vector<SavedReport>& reports,
                 const std::vector<GroupTrend>& groups, const std::optional<TrendBreak>& broken,
                 std::ostream& out) {
  nlohmann::json document = {{"format", "memleak-trend"}, {"version", 1},
                             {"process", process},        {"reports", nlohmann::json::array()},
                             {"broken", nullptr},         {"groups", nlohmann::json::array()}};
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
  for (const GroupTrend& group : groups) document["groups"].push_back(ToJson(group));
  WriteJson(document, out);
}

}  // namespace memleak
