// SPDX-License-Identifier: Apache-2.0
// A profile for the speedscope viewer: each group is one sample, weighted by what it holds.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>
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

  /// The indices of a group's stack in the table, outermost first.
  std::vector<std::size_t> StackOf(const Group& group) const {
    if (group.stack.empty()) return {entries_.size() - 1};
    std::vector<std::size_t> stack;
    for (auto frame = group.stack.rbegin(); frame != group.stack.rend(); ++frame) {
      stack.push_back(indices_[*frame]);
    }
    return stack;
  }

  void Write(JsonWriter* json) const {
    json->Objects("frames", entries_, [&](const Entry& entry) {
      const auto& [name, file, line] = entry;
      json->Member("name", name);
      if (!file.empty()) json->Member("file", file);
      if (line != 0) json->Member("line", line);
    });
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

// The members of one profile.
void WriteOne(const Profile& profile, const FrameTable& frames, GroupKind kind, Measure measure,
              JsonWriter* json) {
  std::string name = kind == GroupKind::kNative ? "native" : "Java-native";
  name += measure == Measure::kBytes ? ", bytes held" : ", blocks held";
  json->Member("type", "sampled");
  json->Member("name", name);
  json->Member("unit", measure == Measure::kBytes ? "bytes" : "none");
  std::vector<std::uint64_t> weights;
  std::uint64_t sum = 0;
  json->Array("samples", profile.groups, [&](const Group& group) {
    const std::uint64_t weight = measure == Measure::kBytes ? group.total : group.count;
    if (group.kind != kind || weight == 0) return;
    json->Value(frames.StackOf(group));
    weights.push_back(weight);
    sum += weight;
  });
  json->Member("weights", weights);
  json->Member("startValue", 0);
  json->Member("endValue", sum);
}

}  // namespace

void WriteSpeedscope(const Profile& profile, std::ostream& out) {
  const FrameTable frames(profile);
  std::vector<std::pair<GroupKind, Measure>> profiles = {{GroupKind::kNative, Measure::kBytes},
                                                         {GroupKind::kNative, Measure::kBlocks}};
  if (profile.Listed(GroupKind::kJava).groups != 0) {
    profiles.emplace_back(GroupKind::kJava, Measure::kBytes);
    profiles.emplace_back(GroupKind::kJava, Measure::kBlocks);
  }
  JsonWriter json(out);
  json.Object([&] {
    json.Member("$schema", "https://www.speedscope.app/file-format-schema.json");
    json.Member("exporter", "memleak");
    json.Member("name", LastPart(profile.path));
    json.Member("activeProfileIndex", 0);
    json.Objects("profiles", profiles,
                 [&](const auto& of) { WriteOne(profile, frames, of.first, of.second, &json); });
    json.Object("shared", [&] { frames.Write(&json); });
  });
  json.EndLine();
}

}  // namespace memleak
