// SPDX-License-Identifier: Apache-2.0
#include "tools/export/document.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

#include "tools/base/user_error.h"
#include "tools/export/json.h"
#include "tools/report/program_name.h"

namespace memleak {
namespace {

using Json = nlohmann::json;

// Reading checks every index.

// Without this check, get() would convert negative numbers and fractions.
std::uint64_t Number(const Json& object, const char* name) {
  const Json& value = object.at(name);
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  throw std::out_of_range(std::string("\"") + name + "\" is not a whole number");
}

std::string Text(const Json& object, const char* name) {
  return object.at(name);
}

std::uint32_t Index(const Json& value, std::size_t count, const char* what) {
  if (value.is_number_unsigned() && value.get<std::uint64_t>() < count) {
    return value.get<std::uint32_t>();
  }
  throw std::out_of_range(std::string("index of no ") + what);
}

Frame FrameOf(const Json& object, std::size_t libraries) {
  Frame frame;
  const Json& library = object.at("library");
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
Json Member(const Json& object, const char* name, const Json& otherwise) {
  return object.contains(name) ? object.at(name) : otherwise;
}

Group GroupOf(const Json& object, std::size_t frames) {
  Group group;
  const std::string kind = Text(object, "kind");
  if (kind != "native" && kind != "java") throw std::out_of_range("a group of unknown kind");
  group.kind = kind == "native" ? GroupKind::kNative : GroupKind::kJava;
  group.size = Number(object, "size");
  group.max_size = Number(object, object.contains("maxSize") ? "maxSize" : "size");
  for (const Json& blocks : Member(object, "ageCounts", Json::array())) {
    group.age_counts.push_back(blocks.get<std::uint64_t>());
  }
  group.count = Number(object, "count");
  group.total = Number(object, "total");
  group.ages = object.at("ages").get<std::vector<std::int64_t>>();
  group.own_ages = Member(object, "ownAges", false).get<bool>();
  group.cut = Member(object, "cut", false).get<bool>();
  for (const Json& frame : object.at("stack")) group.stack.push_back(Index(frame, frames, "frame"));
  return group;
}

ProfileHead HeadOf(const Json& process) {
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

void ReadHead(const Json& document, Profile* profile) {
  const Json& report = document.at("report");
  profile->made = report.at("made").get<std::int64_t>();
  profile->complete = report.at("complete").get<bool>();
  profile->path = Text(report, "path");
  if (report.contains("process")) profile->head = HeadOf(report.at("process"));
  profile->damaged_lines = Number(report, "damagedLines");
  for (const Json& number : Member(report, "damaged", Json::array())) {
    const auto line = number.get<std::uint64_t>();
    profile->damaged.push_back({line, line == 0 ? "a line is missing in the head" : ""});
  }
  profile->header.backtrace_size = Number(report, "backtraceSize");
  const Json& totals = document.at("totals");
  profile->header.total_bytes = Number(totals, "bytes");
  profile->header.groups = Number(totals, "groups");
  profile->header.listed =
      Number(totals, totals.contains("announcedGroups") ? "announcedGroups" : "listedGroups");
}

Profile ProfileOf(const Json& document) {
  Profile profile;
  ReadHead(document, &profile);
  for (const Json& object : document.at("libraries")) {
    Library& library = profile.libraries.emplace_back();
    library.path = Text(object, "path");
    library.build_id = Text(object, "buildId");
    library.found = object.at("found").get<bool>();
    const bool missing = !library.found && library.path.starts_with('/');
    library.hint = Member(object, "hint", missing ? library.path : "").get<std::string>();
  }
  for (const Json& object : document.at("frames")) {
    profile.frames.push_back(FrameOf(object, profile.libraries.size()));
  }
  for (const Json& object : document.at("groups")) {
    profile.groups.push_back(GroupOf(object, profile.frames.size()));
  }
  return profile;
}

// The earlier report of two, without groups.
Profile BaseOf(const Json& document) {
  Profile base;
  ReadHead(document.at("base"), &base);
  return base;
}

std::vector<GroupChange> ChangesOf(const Json& document) {
  std::vector<GroupChange> changes;
  for (const Json& group : document.at("groups")) {
    GroupChange& change = changes.emplace_back();
    const Json& before = group.at("before");
    change.before = {.count = Number(before, "count"), .total = Number(before, "total")};
    const auto* const name = std::ranges::find(kChangeNames, Text(group, "status"));
    if (name == kChangeNames.end()) throw std::out_of_range("an unknown status");
    change.change = static_cast<Change>(name - kChangeNames.begin());
  }
  return changes;
}

constexpr const char* kRemedy = "make one with memleak export --format json";

Json Parse(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw UserError("cannot read " + path, "check that you may read it");
  Json document = Json::parse(file, nullptr, false);
  const auto is = [&document](const char* name, const Json& value) {
    return document.is_object() && document.contains(name) && document[name] == value;
  };
  if (!is("format", kJsonFormat) || !is("version", kJsonVersion)) {
    throw UserError("not a memleak-profile document of version 1: " + path, kRemedy);
  }
  return document;
}

}  // namespace

bool IsJsonDocument(const std::string& path) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) return false;
  std::ifstream file(path, std::ios::binary);
  char first = '\0';
  return (file >> first) && first == '{';
}

Document LoadDocument(const std::string& path) {
  const Json document = Parse(path);
  try {
    Document loaded{ProfileOf(document), std::nullopt, {}, document.at("totals").dump()};
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
