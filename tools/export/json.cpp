// SPDX-License-Identifier: Apache-2.0
#include "tools/export/json.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/report/aggregate.h"
#include "tools/report/program_name.h"

namespace memleak {
namespace {

using nlohmann::json;

const char* KindName(GroupKind kind) {
  return kind == GroupKind::kNative ? "native" : "java";
}

json FramesToJson(const Profile& profile) {
  json list = json::array();
  for (const Frame& frame : profile.frames) {
    list.push_back({{"library", frame.library},
                    {"offset", frame.offset},
                    {"address", frame.address},
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
          {"maxSize", group.max_size},
          {"count", group.count},
          {"total", group.total},
          {"ages", group.ages},
          {"ageCounts", group.age_counts},
          {"ownAges", group.own_ages},
          {"pattern", PatternName(PatternOf(group, age_span))},
          {"cut", group.cut},
          {"stack", group.stack}};
}

json HeadToJson(const ProfileHead& head) {
  return {{"library", head.library},     {"program", head.program}, {"name", head.name},
          {"arguments", head.arguments}, {"pid", head.pid},         {"host", head.host},
          {"started", head.started},     {"written", head.written}, {"since", head.since},
          {"kinds", head.kinds},         {"unwind", head.unwind},   {"unrecorded", head.unrecorded},
          {"ageBounds", head.age_bounds}};
}

json TrendToJson(const GroupTrend& group) {
  json values = json::array();
  for (const GroupValue& value : group.values) {
    values.push_back(value.known ? json{{"count", value.count}, {"total", value.total}} : json());
  }
  json document = {{"kind", KindName(group.kind)},
                   {"size", group.size},
                   {"maxSize", group.max_size},
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

// Reading checks every index.

// Without this check, get() would convert negative numbers and fractions.
std::uint64_t Number(const json& object, const char* name) {
  const json& value = object.at(name);
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  throw std::out_of_range(std::string("\"") + name + "\" is not a whole number");
}

std::string Text(const json& object, const char* name) {
  return object.at(name);
}

std::uint32_t Index(const json& value, std::size_t count, const char* what) {
  if (value.is_number_unsigned() && value.get<std::uint64_t>() < count) {
    return value.get<std::uint32_t>();
  }
  throw std::out_of_range(std::string("index of no ") + what);
}

Frame FrameOf(const json& object, std::size_t libraries) {
  Frame frame;
  const json& library = object.at("library");
  if (library != -1)
    frame.library = static_cast<std::int32_t>(Index(library, libraries, "library"));
  frame.offset = Number(object, "offset");
  frame.address = object.contains("address") ? Number(object, "address") : 0;
  frame.function = Text(object, "function");
  frame.file = Text(object, "file");
  frame.line = static_cast<std::uint32_t>(Number(object, "line"));
  frame.inlined = object.at("inlined").get<bool>();
  return frame;
}

// A member that documents of older programs lack.
json Member(const json& object, const char* name, const json& otherwise) {
  return object.contains(name) ? object.at(name) : otherwise;
}

Group GroupOf(const json& object, std::size_t frames) {
  Group group;
  const std::string kind = Text(object, "kind");
  if (kind != "native" && kind != "java") throw std::out_of_range("a group of unknown kind");
  group.kind = kind == "native" ? GroupKind::kNative : GroupKind::kJava;
  group.size = Number(object, "size");
  group.max_size = Number(object, object.contains("maxSize") ? "maxSize" : "size");
  for (const json& blocks : Member(object, "ageCounts", json::array())) {
    group.age_counts.push_back(blocks.get<std::uint64_t>());
  }
  group.count = Number(object, "count");
  group.total = Number(object, "total");
  group.ages = object.at("ages").get<std::vector<std::int64_t>>();
  group.own_ages = Member(object, "ownAges", false).get<bool>();
  group.cut = Member(object, "cut", false).get<bool>();
  for (const json& frame : object.at("stack")) group.stack.push_back(Index(frame, frames, "frame"));
  return group;
}

ProfileHead HeadOf(const json& process) {
  ProfileHead head;
  head.library = Text(process, "library");
  head.program = Text(process, "program");
  head.arguments = process.at("arguments").get<std::vector<std::string>>();
  head.name = process.contains("name") ? Text(process, "name") : ProgramName(head);
  head.pid = process.at("pid").get<std::int64_t>();
  head.host = Text(process, "host");
  head.started = process.at("started").get<std::int64_t>();
  head.written = process.at("written").get<std::int64_t>();
  head.since = process.at("since").get<std::int64_t>();
  head.kinds = process.at("kinds").get<std::vector<std::string>>();
  head.unwind = Text(process, "unwind");
  head.unrecorded = Number(process, "unrecorded");
  head.age_bounds = process.at("ageBounds").get<std::vector<std::int64_t>>();
  return head;
}

void ReadHead(const json& document, Profile* profile) {
  const json& report = document.at("report");
  profile->made = report.at("made").get<std::int64_t>();
  profile->complete = report.at("complete").get<bool>();
  profile->path = Text(report, "path");
  if (report.contains("process")) profile->head = HeadOf(report.at("process"));
  profile->damaged_lines = Number(report, "damagedLines");
  for (const json& number : Member(report, "damaged", json::array())) {
    const auto line = number.get<std::uint64_t>();
    profile->damaged.push_back({line, line == 0 ? "a line is missing in the head" : ""});
  }
  profile->header.backtrace_size = Number(report, "backtraceSize");
  const json& totals = document.at("totals");
  profile->header.total_bytes = Number(totals, "bytes");
  profile->header.groups = Number(totals, "groups");
  profile->header.listed =
      Number(totals, totals.contains("announcedGroups") ? "announcedGroups" : "listedGroups");
}

Profile ProfileOf(const json& document) {
  Profile profile;
  ReadHead(document, &profile);
  for (const json& object : document.at("libraries")) {
    Library& library = profile.libraries.emplace_back();
    library.path = Text(object, "path");
    library.build_id = Text(object, "buildId");
    library.found = object.at("found").get<bool>();
    const bool missing = !library.found && library.path.starts_with('/');
    library.hint = Member(object, "hint", missing ? library.path : "").get<std::string>();
  }
  for (const json& object : document.at("frames")) {
    profile.frames.push_back(FrameOf(object, profile.libraries.size()));
  }
  for (const json& object : document.at("groups")) {
    profile.groups.push_back(GroupOf(object, profile.frames.size()));
  }
  return profile;
}

// The earlier report of two, without groups.
Profile BaseOf(const json& document) {
  Profile base;
  ReadHead(document.at("base"), &base);
  return base;
}

std::vector<GroupChange> ChangesOf(const json& document) {
  std::vector<GroupChange> changes;
  for (const json& group : document.at("groups")) {
    GroupChange& change = changes.emplace_back();
    const json& before = group.at("before");
    change.before = {.count = Number(before, "count"), .total = Number(before, "total")};
    const auto* const name = std::ranges::find(kChangeNames, Text(group, "status"));
    if (name == kChangeNames.end()) throw std::out_of_range("an unknown status");
    change.change = static_cast<Change>(name - kChangeNames.begin());
  }
  return changes;
}

constexpr const char* kRemedy = "make one with memleak export --format json";

json Parse(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw UserError("cannot read " + path, "check that you may read it");
  json document = json::parse(file, nullptr, false);
  const auto is = [&document](const char* name, const json& value) {
    return document.is_object() && document.contains(name) && document[name] == value;
  };
  if (!is("format", kJsonFormat) || !is("version", kJsonVersion)) {
    throw UserError("not a memleak-profile document of version 1: " + path, kRemedy);
  }
  return document;
}

}  // namespace

json ReportToJson(const Profile& profile) {
  json damaged = json::array();
  for (const DamagedLine& line : profile.damaged) damaged.push_back(line.number);
  json report = {{"path", profile.path},          {"made", profile.made},
                 {"complete", profile.complete},  {"damagedLines", profile.damaged_lines},
                 {"damaged", std::move(damaged)}, {"backtraceSize", profile.header.backtrace_size}};
  if (profile.head) report["process"] = HeadToJson(*profile.head);
  return report;
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

bool IsJsonDocument(const std::string& path) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) return false;
  std::ifstream file(path, std::ios::binary);
  char first = '\0';
  return (file >> first) && first == '{';
}

Document LoadDocument(const std::string& path) {
  const json document = Parse(path);
  try {
    Document loaded{ProfileOf(document), std::nullopt, {}, document.at("totals")};
    if (document.contains("base")) {
      loaded.base = BaseOf(document);
      loaded.changes = ChangesOf(document);
    } else {
      loaded.profile.path = path;
    }
    return loaded;
  } catch (const std::exception& error) {
    throw UserError("damaged document: " + path + " (" + error.what() + ")", kRemedy);
  }
}

}  // namespace memleak
