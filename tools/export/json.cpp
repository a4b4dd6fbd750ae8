// SPDX-License-Identifier: Apache-2.0
#include "tools/export/json.h"

#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/report/aggregate.h"
#include "tools/report/diff.h"

namespace memleak {
namespace {

using nlohmann::json;

const char* KindName(GroupKind kind) {
  return kind == GroupKind::kNative ? "native" : "java";
}

json LibrariesToJson(const Profile& profile) {
  json list = json::array();
  for (const Library& library : profile.libraries) {
    list.push_back({{"path", library.path},
                    {"name", LastPart(library.path)},
                    {"buildId", library.build_id},
                    {"found", library.found},
                    {"hint", library.hint}});
  }
  return list;
}

json FramesToJson(const Profile& profile) {
  json list = json::array();
  for (const Frame& frame : profile.frames) {
    list.push_back({{"library", frame.library},
                    {"offset", frame.offset},
                    {"name", FrameName(profile, frame)},
                    {"function", frame.function},
                    {"file", frame.file},
                    {"line", frame.line},
                    {"inlined", frame.inlined}});
  }
  return list;
}

// `age_span` is that of the whole report.
json GroupToJson(const Group& group, std::int64_t age_span) {
  return {{"kind", KindName(group.kind)},
          {"size", group.size},
          {"count", group.count},
          {"total", group.total},
          {"ages", group.ages},
          {"ownAges", group.own_ages},
          {"pattern", PatternName(PatternOf(group, age_span))},
          {"stack", group.stack}};
}

json ReportToJson(const Profile& profile) {
  json damaged = json::array();
  for (const DamagedLine& line : profile.damaged) damaged.push_back(line.number);
  return {{"path", profile.path},          {"made", profile.made},
          {"complete", profile.complete},  {"damagedLines", profile.damaged_lines},
          {"damaged", std::move(damaged)}, {"backtraceSize", profile.header.backtrace_size}};
}

json TotalsToJson(const Profile& profile) {
  const Sums listed = profile.Listed(GroupKind::kNative);
  const Sums unlisted = profile.Unlisted();
  const Sums java = profile.Listed(GroupKind::kJava);
  return {{"bytes", profile.header.total_bytes},
          {"groups", profile.header.groups},
          {"announcedGroups", profile.header.listed},
          {"blocks", listed.blocks},
          {"listedBytes", listed.bytes},
          {"listedGroups", listed.groups},
          {"unlistedBytes", unlisted.bytes},
          {"unlistedGroups", unlisted.groups},
          {"javaBytes", java.bytes},
          {"javaGroups", java.groups}};
}

json TrendToJson(const GroupTrend& group) {
  json values = json::array();
  for (const GroupValue& value : group.values) {
    values.push_back(value.known ? json{{"count", value.count}, {"total", value.total}} : json());
  }
  json document = {{"kind", KindName(group.kind)},
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

json ToJson(const Profile& profile) {
  json groups = json::array();
  const std::int64_t age_span = AgeSpan(profile);
  for (const Group& group : profile.groups) groups.push_back(GroupToJson(group, age_span));
  return {{"format", kJsonFormat},
          {"version", kJsonVersion},
          {"report", ReportToJson(profile)},
          {"totals", TotalsToJson(profile)},
          {"libraries", LibrariesToJson(profile)},
          {"frames", FramesToJson(profile)},
          {"groups", std::move(groups)}};
}

json DiffToJson(const Profile& before, const Profile& after) {
  const Difference difference = Compare(before, after);
  json document = ToJson(difference.merged);
  document["report"] = ReportToJson(after);
  document["totals"] = TotalsToJson(after);
  document["base"] = {{"report", ReportToJson(before)}, {"totals", TotalsToJson(before)}};
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    const GroupChange& change = difference.changes[i];
    json& group = document["groups"][i];
    group["before"] = {{"count", change.before.count}, {"total", change.before.total}};
    group["status"] = ChangeName(change.change);
  }
  return document;
}

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
  for (const GroupTrend& group : groups) document["groups"].push_back(TrendToJson(group));
  return document;
}

void WriteJson(const json& document, std::ostream& out) {
  // Names of mappings may contain any bytes.
  const std::string text = document.dump(-1, ' ', false, json::error_handler_t::replace);
  // dump() escapes the C0 control characters only. This escapes DEL and C1, which starts with 0xC2.
  constexpr const char* kStarts = "\xc2\x7f";
  std::size_t written = 0;
  for (std::size_t at = text.find_first_of(kStarts); at != std::string::npos;
       at = text.find_first_of(kStarts, at + 1)) {
    const Character character = FirstCharacter(std::string_view(text).substr(at));
    if (character.printable) continue;
    out << std::string_view(text).substr(written, at - written) << "\\u00" << std::hex
        << character.value << std::dec;
    written = at + character.bytes.size();
  }
  out << std::string_view(text).substr(written) << "\n";
}

}  // namespace memleak
