// SPDX-License-Identifier: Apache-2.0
// A profile for the speedscope viewer: each group is one sample, weighted by what it holds.
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/base/files.h"
#include "tools/export/formats.h"
#include "tools/export/json.h"

namespace memleak {
namespace {

using nlohmann::json;

/// The table of frames, without duplicates.
class FrameTable {
 public:
  explicit FrameTable(const Profile& profile) {
    std::unordered_map<json, std::size_t> known;
    for (const Frame& frame : profile.frames) {
      json entry = {{"name", FrameName(profile, frame)}};
      const std::string file = FileOf(profile, frame);
      if (!file.empty()) entry["file"] = file;
      if (frame.line != 0) entry["line"] = frame.line;
      const auto [place, added] = known.try_emplace(entry, entries_.size());
      if (added) entries_.push_back(std::move(entry));
      indices_.push_back(place->second);
    }
    unknown_ = entries_.size();
    entries_.push_back({{"name", "[unknown]"}});
  }

  json Stack(const Group& group) const {
    json stack = json::array();
    for (auto frame = group.stack.rbegin(); frame != group.stack.rend(); ++frame) {
      stack.push_back(indices_[*frame]);
    }
    if (stack.empty()) stack.push_back(unknown_);
    return stack;
  }

  json TakeEntries() { return std::move(entries_); }

 private:
  // The library replaces a missing source file. The viewer colours by it.
  static std::string FileOf(const Profile& profile, const Frame& frame) {
    const Library* library = profile.LibraryOf(frame);
    return !frame.file.empty() || library == nullptr ? frame.file : library->path;
  }

  json entries_ = json::array();
  std::vector<std::size_t> indices_;
  std::size_t unknown_ = 0;
};

json OneProfile(const Profile& profile, const FrameTable& frames, GroupKind kind, Measure measure) {
  json samples = json::array();
  json weights = json::array();
  std::uint64_t sum = 0;
  for (const Group& group : profile.groups) {
    const std::uint64_t weight = measure == Measure::kBytes ? group.total : group.count;
    if (group.kind != kind || weight == 0) continue;
    samples.push_back(frames.Stack(group));
    weights.push_back(weight);
    sum += weight;
  }
  std::string name = kind == GroupKind::kNative ? "native" : "Java-native";
  name += measure == Measure::kBytes ? ", bytes held" : ", blocks held";
  return {{"type", "sampled"},
          {"name", std::move(name)},
          {"unit", measure == Measure::kBytes ? "bytes" : "none"},
          {"startValue", 0},
          {"endValue", sum},
          {"samples", std::move(samples)},
          {"weights", std::move(weights)}};
}

}  // namespace

void WriteSpeedscope(const Profile& profile, std::ostream& out) {
  FrameTable frames(profile);
  json profiles = json::array();
  for (const GroupKind kind : {GroupKind::kNative, GroupKind::kJava}) {
    if (kind == GroupKind::kJava && profile.Listed(kind).groups == 0) continue;
    for (const Measure measure : {Measure::kBytes, Measure::kBlocks}) {
      profiles.push_back(OneProfile(profile, frames, kind, measure));
    }
  }
  const json document = {{"$schema", "https://www.speedscope.app/file-format-schema.json"},
                         {"exporter", "memleak"},
                         {"name", LastPart(profile.path)},
                         {"activeProfileIndex", 0},
                         {"profiles", std::move(profiles)},
                         {"shared", {{"frames", frames.TakeEntries()}}}};
  WriteJson(document, out);
}

}  // namespace memleak
