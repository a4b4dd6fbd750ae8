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
  json->Objects("frames", profile.frames, [&](const Frame& frame) {
    json->Member("library", frame.library);
    json->Member("offset", frame.offset);
    json->Member("address", frame.address);
    json->Member("name", FrameName(profile, frame));
    json->Member("function", frame.function);
    json->Member("file", frame.file);
    json->Member("line", frame.line);
    json->Member("inlined", frame.inlined);
  });
}

// The members of a group. `age_span` is that of the whole report.
void WriteGroup(const Group& group, std::int64_t age_span, JsonWriter* json) {
  json->Member("kind", KindName(group.kind));
  json->Member("size", group.size);
  json->Member("maxSize", group.max_size);
  json->Member("count", group.count);
  json->Member("total", group.total);
  json->Member("ages", group.ages);
  json->Member("ageCounts", group.age_counts);
  json->Member("ownAges", group.own_ages);
  json->Member("pattern", PatternName(PatternOf(group, age_span)));
  json->Member("cut", group.cut);
  json->Member("stack", group.stack);
}

void WriteProcess(const ProfileHead& head, JsonWriter* json) {
  json->Member("library", head.library);
  json->Member("program", head.program);
  json->Member("name", head.name);
  json->Member("arguments", head.arguments);
  json->Member("pid", head.pid);
  json->Member("host", head.host);
  json->Member("started", head.started);
  json->Member("written", head.written);
  json->Member("since", head.since);
  json->Member("kinds", head.kinds);
  json->Member("unwind", head.unwind);
  json->Member("unrecorded", head.unrecorded);
  json->Member("ageBounds", head.age_bounds);
}

// The members of a document before its libraries.
void WriteHead(const Profile& profile, JsonWriter* json) {
  json->Member("format", kJsonFormat);
  json->Member("version", kJsonVersion);
  WriteReport(profile, json);
  WriteTotals(profile, json);
}

void WriteFigures(const GroupValue& value, JsonWriter* json) {
  json->Member("count", value.count);
  json->Member("total", value.total);
}

void WriteTrend(const GroupTrend& group, JsonWriter* json) {
  json->Member("kind", KindName(group.kind));
  json->Member("size", group.size);
  json->Member("maxSize", group.max_size);
  json->Member("stack", group.stack);
  json->Member("libraries", group.libraries);
  json->Array("values", group.values, [&](const GroupValue& value) {
    if (!value.known) return json->Null();
    json->Object([&] { WriteFigures(value, json); });
  });
  json->Member("growth", group.Growth());
  json->Key("line");
  if (!group.line) return json->Null();
  json->Object([&] {
    json->Member("bytesPerMinute", group.line->slope);
    json->Member("margin95", group.line->margin);
    json->Member("rSquared", group.line->r_squared);
  });
}

}  // namespace

void WriteReport(const Profile& profile, JsonWriter* json) {
  json->Object("report", [&] {
    json->Member("path", profile.path);
    json->Member("made", profile.made);
    json->Member("complete", profile.complete);
    json->Member("damagedLines", profile.damaged_lines);
    json->Column("damaged", profile.damaged, &DamagedLine::number);
    json->Member("backtraceSize", profile.header.backtrace_size);
    if (profile.head) json->Object("process", [&] { WriteProcess(*profile.head, json); });
  });
}

void WriteTotals(const Profile& profile, JsonWriter* json) {
  const Sums listed = profile.Listed(GroupKind::kNative);
  const Sums unlisted = profile.Unlisted();
  const Sums java = profile.Listed(GroupKind::kJava);
  json->Object("totals", [&] {
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
  });
}

void WriteBase(const Profile& base, JsonWriter* json) {
  json->Object("base", [&] {
    WriteReport(base, json);
    WriteTotals(base, json);
  });
}

void WriteLibraries(const Profile& profile, JsonWriter* json) {
  json->Objects("libraries", profile.libraries, [&](const Library& library) {
    json->Member("path", library.path);
    json->Member("name", LastPart(library.path));
    json->Member("buildId", library.build_id);
    json->Member("found", library.found);
    json->Member("hint", library.hint);
  });
}

void WriteProfileJson(const Profile& profile, std::ostream& out) {
  JsonWriter json(out);
  json.Object([&] {
    WriteHead(profile, &json);
    WriteLibraries(profile, &json);
    WriteFrames(profile, &json);
    const std::int64_t age_span = AgeSpan(profile);
    json.Objects("groups", profile.groups,
                 [&](const Group& group) { WriteGroup(group, age_span, &json); });
  });
  json.EndLine();
}

void WriteDiffJson(const Profile& before, const Profile& after, std::ostream& out) {
  const Difference difference = Compare(before, after);
  const Profile& merged = difference.merged;
  JsonWriter json(out);
  json.Object([&] {
    WriteHead(after, &json);
    WriteBase(before, &json);
    WriteLibraries(merged, &json);
    WriteFrames(merged, &json);
    const std::int64_t age_span = AgeSpan(merged);
    std::size_t index = 0;
    json.Objects("groups", difference.changes, [&](const GroupChange& change) {
      WriteGroup(merged.groups[index++], age_span, &json);
      json.Object("before", [&] { WriteFigures(change.before, &json); });
      json.Member("status", ChangeName(change.change));
    });
  });
  json.EndLine();
}

void WriteTrendsJson(const std::string& process, const std::vector<SavedReport>& reports,
                     const std::vector<GroupTrend>& groups, const std::optional<TrendBreak>& broken,
                     std::ostream& out) {
  JsonWriter json(out);
  json.Object([&] {
    json.Member("format", "memleak-trend");
    json.Member("version", 1);
    json.Member("process", process);
    json.Objects("reports", reports, [&](const SavedReport& report) {
      json.Member("file", report.file);
      json.Member("time", report.time);
      json.Member("seconds", report.seconds);
      json.Member("bytes", report.bytes);
      json.Member("groups", report.groups);
      json.Member("unlistedBytes", report.unlisted.bytes);
      json.Member("unlistedGroups", report.unlisted.groups);
    });
    json.Key("broken");
    if (broken) {
      json.Object([&] {
        json.Member("seconds", broken->seconds);
        json.Member("why", broken->why);
      });
    } else {
      json.Null();
    }
    json.Objects("groups", groups, [&](const GroupTrend& group) { WriteTrend(group, &json); });
  });
  json.EndLine();
}

}  // namespace memleak
