// SPDX-License-Identifier: Apache-2.0
#include "tools/export/json.h"

#include <algorithm>

#include "tools/base/files.h"
#include "tools/export/json_writer.h"
#include "tools/report/aggregate.h"
#include "tools/report/diff.h"

namespace memleak {
namespace {

const char* KindName(GroupKind kind) {
  return kind == GroupKind::kNative ? "native" : "java";
}

void WriteFrames(const Profile& profile, JsonWriter* json) {
  json->Key("frames");
  json->BeginArray();
  for (const Frame& frame : profile.frames) {
    json->BeginObject();
    json->Member("library", frame.library);
    json->Member("offset", frame.offset);
    json->Member("address", frame.address);
    json->Member("name", FrameName(profile, frame));
    json->Member("function", frame.function);
    json->Member("file", frame.file);
    json->Member("line", frame.line);
    json->Member("inlined", frame.inlined);
    json->EndObject();
  }
  json->EndArray();
}

// The members of a group. `age_span` is that of the whole report.
void WriteGroup(const Group& group, std::int64_t age_span, JsonWriter* json) {
  json->Member("kind", KindName(group.kind));
  json->Member("size", group.size);
  json->Member("maxSize", group.max_size);
  json->Member("count", group.count);
  json->Member("total", group.total);
  json->MemberList("ages", group.ages);
  json->MemberList("ageCounts", group.age_counts);
  json->Member("ownAges", group.own_ages);
  json->Member("pattern", PatternName(PatternOf(group, age_span)));
  json->Member("cut", group.cut);
  json->MemberList("stack", group.stack);
}

void WriteProcess(const ProfileHead& head, JsonWriter* json) {
  json->Key("process");
  json->BeginObject();
  json->Member("library", head.library);
  json->Member("program", head.program);
  json->Member("name", head.name);
  json->MemberList("arguments", head.arguments);
  json->Member("pid", head.pid);
  json->Member("host", head.host);
  json->Member("started", head.started);
  json->Member("written", head.written);
  json->Member("since", head.since);
  json->MemberList("kinds", head.kinds);
  json->Member("unwind", head.unwind);
  json->Member("unrecorded", head.unrecorded);
  json->MemberList("ageBounds", head.age_bounds);
  json->EndObject();
}

// The members of a document before its libraries.
void WriteHead(const Profile& profile, JsonWriter* json) {
  json->Member("format", kJsonFormat);
  json->Member("version", kJsonVersion);
  WriteReport(profile, json);
  WriteTotals(profile, json);
}

void WriteTrend(const GroupTrend& group, JsonWriter* json) {
  json->BeginObject();
  json->Member("kind", KindName(group.kind));
  json->Member("size", group.size);
  json->Member("maxSize", group.max_size);
  json->MemberList("stack", group.stack);
  json->MemberList("libraries", group.libraries);
  json->Key("values");
  json->BeginArray();
  for (const GroupValue& value : group.values) {
    if (!value.known) {
      json->Null();
      continue;
    }
    json->BeginObject();
    json->Member("count", value.count);
    json->Member("total", value.total);
    json->EndObject();
  }
  json->EndArray();
  json->Member("growth", group.Growth());
  json->Key("line");
  if (group.line) {
    json->BeginObject();
    json->Member("bytesPerMinute", group.line->slope);
    json->Member("margin95", group.line->margin);
    json->Member("rSquared", group.line->r_squared);
    json->EndObject();
  } else {
    json->Null();
  }
  json->EndObject();
}

}  // namespace

void WriteReport(const Profile& profile, JsonWriter* json) {
  json->Key("report");
  json->BeginObject();
  json->Member("path", profile.path);
  json->Member("made", profile.made);
  json->Member("complete", profile.complete);
  json->Member("damagedLines", profile.damaged_lines);
  json->Key("damaged");
  json->BeginArray();
  for (const DamagedLine& line : profile.damaged) json->Value(line.number);
  json->EndArray();
  json->Member("backtraceSize", profile.header.backtrace_size);
  if (profile.head) WriteProcess(*profile.head, json);
  json->EndObject();
}

void WriteTotals(const Profile& profile, JsonWriter* json) {
  const Sums listed = profile.Listed(GroupKind::kNative);
  const Sums unlisted = profile.Unlisted();
  const Sums java = profile.Listed(GroupKind::kJava);
  json->Key("totals");
  json->BeginObject();
  json->Member("bytes", profile.header.total_bytes);
  json->Member("groups", profile.header.groups);
  json->Member("announcedGroups", profile.header.listed);
  json->Member("blocks", listed.blocks);
  json->Member("listedBytes", listed.bytes);
  json->Member("listedGroups", listed.groups);
  json->Member("unlistedBytes", unlisted.bytes);
  json->Member("unlistedGroups", unlisted.groups);
  json->Member("javaBytes", java.bytes);
  json->Member("javaGroups", java.groups);
  json->EndObject();
}

void WriteLibraries(const Profile& profile, JsonWriter* json) {
  json->Key("libraries");
  json->BeginArray();
  for (const Library& library : profile.libraries) {
    json->BeginObject();
    json->Member("path", library.path);
    json->Member("name", LastPart(library.path));
    json->Member("buildId", library.build_id);
    json->Member("found", library.found);
    json->Member("hint", library.hint);
    json->EndObject();
  }
  json->EndArray();
}

void WriteProfileJson(const Profile& profile, std::ostream& out) {
  JsonWriter json(out);
  json.BeginObject();
  WriteHead(profile, &json);
  WriteLibraries(profile, &json);
  WriteFrames(profile, &json);
  json.Key("groups");
  json.BeginArray();
  const std::int64_t age_span = AgeSpan(profile);
  for (const Group& group : profile.groups) {
    json.BeginObject();
    WriteGroup(group, age_span, &json);
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  json.EndLine();
}

void WriteDiffJson(const Profile& before, const Profile& after, std::ostream& out) {
  const Difference difference = Compare(before, after);
  JsonWriter json(out);
  json.BeginObject();
  WriteHead(after, &json);
  json.Key("base");
  json.BeginObject();
  WriteReport(before, &json);
  WriteTotals(before, &json);
  json.EndObject();
  WriteLibraries(difference.merged, &json);
  WriteFrames(difference.merged, &json);
  json.Key("groups");
  json.BeginArray();
  const std::int64_t age_span = AgeSpan(difference.merged);
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    const GroupChange& change = difference.changes[i];
    json.BeginObject();
    WriteGroup(difference.merged.groups[i], age_span, &json);
    json.Key("before");
    json.BeginObject();
    json.Member("count", change.before.count);
    json.Member("total", change.before.total);
    json.EndObject();
    json.Member("status", ChangeName(change.change));
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  json.EndLine();
}

void WriteTrendsJson(const std::string& process, const std::vector<SavedReport>& reports,
                     const std::vector<GroupTrend>& groups, const std::optional<TrendBreak>& broken,
                     std::ostream& out) {
  JsonWriter json(out);
  json.BeginObject();
  json.Member("format", "memleak-trend");
  json.Member("version", 1);
  json.Member("process", process);
  json.Key("reports");
  json.BeginArray();
  for (const SavedReport& report : reports) {
    json.BeginObject();
    json.Member("file", report.file);
    json.Member("time", report.time);
    json.Member("seconds", report.seconds);
    json.Member("bytes", report.bytes);
    json.Member("groups", report.groups);
    json.Member("unlistedBytes", report.unlisted.bytes);
    json.Member("unlistedGroups", report.unlisted.groups);
    json.EndObject();
  }
  json.EndArray();
  json.Key("broken");
  if (broken) {
    json.BeginObject();
    json.Member("seconds", broken->seconds);
    json.Member("why", broken->why);
    json.EndObject();
  } else {
    json.Null();
  }
  json.Key("groups");
  json.BeginArray();
  for (const GroupTrend& group : groups) WriteTrend(group, &json);
  json.EndArray();
  json.EndObject();
  json.EndLine();
}

}  // namespace memleak
