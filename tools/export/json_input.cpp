// The document, member by member, with every reference checked.
#include "tools/export/json_input.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <utility>

#include "tools/base/user_error.h"
#include "tools/export/json.h"

namespace memleak {
namespace {

using nlohmann::json;

// The library would turn negative numbers and fractions into others.
std::uint64_t Number(const json& object, const char* name) {
  const json& value = object.at(name);
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  throw std::out_of_range(std::string("\"") + name + "\" is no whole number");
}

std::string Text(const json& object, const char* name) {
  return object.at(name).get<std::string>();
}

std::uint32_t Index(const json& value, std::size_t count, const char* what) {
  if (value.is_number_unsigned() && value.get<std::uint64_t>() < count) {
    return value.get<std::uint32_t>();
  }
  throw std::out_of_range(std::string("a reference to no ") + what);
}

Frame FrameOf(const json& object, std::size_t libraries) {
  Frame frame;
  const json& library = object.at("library");
  if (library != -1)
    frame.library = static_cast<std::int32_t>(Index(library, libraries, "library"));
  frame.offset = Number(object, "offset");
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
  group.count = Number(object, "count");
  group.total = Number(object, "total");
  group.ages = object.at("ages").get<std::vector<std::int64_t>>();
  group.own_ages = Member(object, "ownAges", false).get<bool>();
  for (const json& frame : object.at("stack")) group.stack.push_back(Index(frame, frames, "frame"));
  return group;
}

void ReadHead(const json& document, Profile* profile) {
  const json& report = document.at("report");
  profile->made = report.at("made").get<std::int64_t>();
  profile->complete = report.at("complete").get<bool>();
  profile->path = Text(report, "path");
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

// The head of the earlier report in a comparison, whose groups stand beside the later one's.
Profile BaseOf(const json& document) {
  static const std::set<std::string> kStatus = {"grew", "shrank", "new", "gone", "same", "unknown"};
  for (const json& group : document.at("groups")) {
    const json& before = group.at("before");
    Number(before, "count");
    Number(before, "total");
    if (kStatus.count(Text(group, "status")) == 0) throw std::out_of_range("an unknown status");
    for (const json* side : {&group, &before}) {
      if (side->contains("atMost")) Number(*side, "atMost");
    }
  }
  Profile base;
  ReadHead(document.at("base"), &base);
  return base;
}

constexpr const char* kRemedy = "make one with memleak export --format json";

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw UserError("cannot read " + path, "check that you may read it");
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

json Parse(const std::string& text, const std::string& path) {
  json document = json::parse(text, nullptr, false);
  const auto is = [&document](const char* name, const json& value) {
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

Profile LoadDocument(const std::string& path) {
  Document document = LoadAnyDocument(path);
  if (document.base) throw UserError("document compares two reports: " + path, kRemedy);
  return std::move(document.profile);
}

Document LoadAnyDocument(const std::string& path) {
  Document loaded;
  loaded.text = ReadText(path);
  const json document = Parse(loaded.text, path);
  try {
    // With groups left out by a filter, others would seem to be gone.
    if (document.contains("selection") && Number(document["selection"], "omittedGroups") != 0) {
      throw UserError("document lacks groups of its report: " + path, kRemedy);
    }
    loaded.profile = ProfileOf(document);
    if (document.contains("base")) {
      loaded.base = BaseOf(document);
    } else {
      loaded.profile.path = path;
    }
    return loaded;
  } catch (const json::exception& error) {
    throw UserError("damaged document: " + path + " (" + error.what() + ")", kRemedy);
  } catch (const std::out_of_range& error) {
    throw UserError("damaged document: " + path + " (" + error.what() + ")", kRemedy);
  }
}

}  // namespace memleak
