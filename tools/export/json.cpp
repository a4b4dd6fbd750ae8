// The document, member by member.
#include "tools/export/json.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "tools/base/names.h"
#include "tools/report/aggregate.h"

namespace memleak {
namespace {

using nlohmann::json;

json LibrariesToJson(const Profile& profile) {
  json list = json::array();
  for (const Library& library : profile.libraries) {
    list.push_back({{"path", library.path},
                    {"name", library.path.substr(library.path.rfind('/') + 1)},
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

// `span`: of the ages of the whole report.
json GroupToJson(const Group& group, std::int64_t span) {
  return {{"kind", group.kind == GroupKind::kNative ? "native" : "java"},
          {"size", group.size},
          {"count", group.count},
          {"total", group.total},
          {"ages", group.ages},
          {"ownAges", group.own_ages},
          {"pattern", PatternName(PatternOf(group, span))},
          {"stack", group.stack}};
}

json Document(const Profile& profile) {
  return {{"format", kJsonFormat},
          {"version", kJsonVersion},
          {"report", ReportToJson(profile)},
          {"totals", TotalsToJson(profile)},
          {"libraries", LibrariesToJson(profile)},
          {"frames", FramesToJson(profile)},
          {"groups", json::array()}};
}

}  // namespace

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

json ToJson(const Profile& profile) {
  json document = Document(profile);
  const std::int64_t span = AgeSpan(profile);
  for (const Group& group : profile.groups) document["groups"].push_back(GroupToJson(group, span));
  return document;
}

json ToJson(const Profile& profile, const std::vector<std::size_t>& groups) {
  json document = Document(profile);
  const std::int64_t span = AgeSpan(profile);
  Sums shown;
  Sums omitted;
  for (const Group& group : profile.groups) omitted.Add(group);
  for (const std::size_t index : groups) {
    document["groups"].push_back(GroupToJson(profile.groups[index], span));
    shown.Add(profile.groups[index]);
  }
  document["selection"] = {{"bytes", shown.bytes},
                           {"groups", shown.groups},
                           {"omittedBytes", omitted.bytes - shown.bytes},
                           {"omittedGroups", omitted.groups - shown.groups}};
  return document;
}

void WriteJson(const json& document, std::ostream& out) {
  // Mapping names are bytes; a page or a script must be able to read the document all the same.
  const std::string text = document.dump(-1, ' ', false, json::error_handler_t::replace);
  // The library escapes C0 alone. What it leaves of control characters has two bytes, but for DEL.
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
