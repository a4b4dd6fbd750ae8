// SPDX-License-Identifier: Apache-2.0
#include "tools/report/diff.h"

#include <algorithm>
#include <limits>
#include <string>
#include <unordered_map>
#include <utility>

namespace memleak {
namespace {

/// Appends frames of another profile, with their libraries, each once.
class FrameImporter {
 public:
  FrameImporter(const Profile& from, Profile* to) : from_(from), to_(to) {}

  std::vector<std::uint32_t> Import(const std::vector<std::uint32_t>& stack) {
    std::vector<std::uint32_t> imported;
    imported.reserve(stack.size());
    for (const std::uint32_t index : stack) {
      const auto [known, added] =
          frames_.try_emplace(index, static_cast<std::uint32_t>(to_->frames.size()));
      if (added) {
        Frame frame = from_.frames[index];
        if (const Library* library = from_.LibraryOf(frame)) {
          frame.library = ImportLibrary(*library);
        }
        to_->frames.push_back(std::move(frame));
      }
      imported.push_back(known->second);
    }
    return imported;
  }

 private:
  std::int32_t ImportLibrary(const Library& library) {
    std::vector<Library>& all = to_->libraries;
    const auto same = std::find_if(all.begin(), all.end(), [&](const Library& other) {
      return other.path == library.path && other.build_id == library.build_id;
    });
    const auto index = static_cast<std::int32_t>(same - all.begin());
    if (same == all.end()) all.push_back(library);
    return index;
  }

  const Profile& from_;
  Profile* to_;
  std::unordered_map<std::uint32_t, std::uint32_t> frames_;
};

GroupChange Judge(const MatchedGroup& matched, std::uint64_t size) {
  const GroupValue& before = matched.values[1];
  const GroupValue& after = matched.values[0];
  GroupChange judged{before, after, Change::kUnknown, 0, matched.stack_id};
  if (!before.known || !after.known) return judged;
  judged.growth = Growth(before.total, after.total);
  // Groups of empty blocks have no bytes.
  const std::int64_t growth = size == 0 ? Growth(before.count, after.count) : judged.growth;
  if (growth > 0) {
    judged.change = before.sites == 0 ? Change::kNew : Change::kGrew;
  } else if (growth < 0) {
    judged.change = after.sites == 0 ? Change::kGone : Change::kShrank;
  } else {
    judged.change = Change::kSame;
  }
  return judged;
}

// The builds that both reports have. Offsets of other builds are not comparable.
std::set<std::string> SharedBuilds(const Profile& before, const Profile& after) {
  std::set<std::string> shared = BuildsOf(before);
  const std::set<std::string> others = BuildsOf(after);
  std::erase_if(shared, [&](const std::string& build) { return !others.contains(build); });
  return shared;
}

}  // namespace

Difference Compare(const Profile& before, const Profile& after) {
  Difference difference;
  Profile& merged = difference.merged;
  merged.libraries = after.libraries;
  merged.frames = after.frames;
  // A report of one size of a stack cannot be compared with a profile's line of all sizes.
  const bool by_size = !before.head && !after.head;
  GroupMatcher matcher(by_size, SharedBuilds(before, after));
  const std::vector<std::size_t> after_indices = matcher.Add(after);
  const std::vector<std::size_t> before_indices = matcher.Add(before);
  // Indices are given in order of first appearance: an unknown one is the next.
  for (std::size_t i = 0; i < after.groups.size(); ++i) {
    const Group& group = after.groups[i];
    if (after_indices[i] == merged.groups.size()) {
      merged.groups.push_back(group);
      continue;
    }
    merged.groups[after_indices[i]].Merge(group);
  }
  FrameImporter importer(before, &merged);
  for (std::size_t i = 0; i < before.groups.size(); ++i) {
    if (before_indices[i] != merged.groups.size()) continue;
    const Group& group = before.groups[i];
    merged.groups.push_back({.kind = group.kind,
                             .size = group.size,
                             .ages = {},
                             .stack = importer.Import(group.stack),
                             .max_size = group.max_size,
                             .cut = group.cut});
  }
  const std::vector<MatchedGroup> matched = matcher.Result();
  for (std::size_t i = 0; i < matched.size(); ++i) {
    difference.changes.push_back(Judge(matched[i], merged.groups[i].max_size));
  }
  return difference;
}

std::int64_t Growth(std::uint64_t before, std::uint64_t after) {
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  const bool grew = after >= before;
  const auto step =
      static_cast<std::int64_t>(std::min(grew ? after - before : before - after, kMax));
  return grew ? step : -step;
}

}  // namespace memleak
