// SPDX-License-Identifier: Apache-2.0
// A profile for the speedscope viewer: each group is one sample, weighted by what it holds.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tools/base/files.h"
#include "tools/export/formats.h"
#include "tools/export/json_writer.h"

namespace memleak {
namespace {

/// The table of frames, without duplicates.
class FrameTable {
 public:
  explicit FrameTable(const Profile& profile) {
    std::map<Entry, std::size_t> known;
    for (const Frame& frame : profile.frames) {
      const auto [place, added] = known.try_emplace(
          {FrameName(profile, frame), FileOf(profile, frame), frame.line}, entries_.size());
      if (added) entries_.push_back(place->first);
      indices_.push_back(place->second);
    }
    entries_.push_back({"[unknown]", "", 0});
  }

  void WriteStack(const Group& group, JsonWriter* json) const {
    json->BeginArray();
    for (auto frame = group.stack.rbegin(); frame != group.stack.rend(); ++frame) {
      json->Value(indices_[*frame]);
    }
    if (group.stack.empty()) json->Value(entries_.size() - 1);
    json->EndArray();
  }

  void Write(JsonWriter* json) const {
    json->Key("frames");
    json->BeginArray();
    for (const auto& [name, file, line] : entries_) {
      json->BeginObject();
      json->Member("name", name);
      if (!file.empty()) json->Member("file", file);
      if (line != 0) json->Member("line", line);
      json->EndObject();
    }
    json->EndArray();
  }

 private:
  using Entry = std::tuple<std::string, std::string, std::uint32_t>;  // name, file, line

  // The library replaces a missing source file. The viewer colours by it.
  static std::string FileOf(const Profile& profile, const Frame& frame) {
    const Library* library = profile.LibraryOf(frame);
    return !frame.file.empty() || library == nullptr ? frame.file : library->path;
  }

  std::vector<Entry> entries_;
  std::vector<std::size_t> indices_;
};

void WriteOne(const Profile& profile, const FrameTable& frames, GroupKind kind, Measure measure,
              JsonWriter* json) {
  std::string name = kind == GroupKind::kNative ? "native" : "Java-native";
  name += measure == Measure::kBytes ? ", bytes held" : ", blocks held";
  json->BeginObject();
  json->Member("type", "sampled");
  json->Member("name", name);
  json->Member("unit", measure == Measure::kBytes ? "bytes" : "none");
  std::vector<std::uint64_t> weights;
  std::uint64_t sum = 0;
  json->Key("samples");
  json->BeginArray();
  for (const Group& group : profile.groups) {
    const std::uint64_t weight = measure == Measure::kBytes ? group.total : group.count;
    if (group.kind != kind || weight == 0) continue;
    frames.WriteStack(group, json);
    weights.push_back(weight);
    sum += weight;
  }
  json->EndArray();
  json->MemberList("weights", weights);
  json->Member("startValue", 0);
  json->Member("endValue", sum);
  json->EndObject();
}

}  // namespace

void WriteSpeedscope(const Profile& profile, std::ostream& out) {
  const FrameTable frames(profile);
  JsonWriter json(out);
  json.BeginObject();
  json.Member("$schema", "https://www.speedscope.app/file-format-schema.json");
  json.Member("exporter", "memleak");
  json.Member("name", LastPart(profile.path));
  json.Member("activeProfileIndex", 0);
  json.Key("profiles");
  json.BeginArray();
  for (const GroupKind kind : {GroupKind::kNative, GroupKind::kJava}) {
    if (kind == GroupKind::kJava && profile.Listed(kind).groups == 0) continue;
    for (const Measure measure : {Measure::kBytes, Measure::kBlocks}) {
      WriteOne(profile, frames, kind, measure, &json);
    }
  }
  json.EndArray();
  json.Key("shared");
  json.BeginObject();
  frames.Write(&json);
  json.EndObject();
  json.EndObject();
  json.EndLine();
}

}  // namespace memleak
