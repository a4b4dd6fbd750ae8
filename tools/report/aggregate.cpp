// SPDX-License-Identifier: Apache-2.0
#include "tools/report/aggregate.h"

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <map>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "tools/report/expression.h"

namespace memleak {
namespace {

constexpr std::size_t kMinAges = 4;
constexpr std::int64_t kQuarters = 4;
constexpr const char* kUnknownLibrary = "[unknown]";

// By frame: whether the expression matches it.
std::vector<bool> MatchFrames(const Profile& profile, const std::string& filter) {
  const Expression expression(filter, "--filter");
  std::vector<bool> libraries;
  for (const Library& library : profile.libraries) {
    libraries.push_back(expression.Matches(library.path));
  }
  std::vector<bool> frames;
  frames.reserve(profile.frames.size());
  for (const Frame& frame : profile.frames) {
    frames.push_back((frame.library >= 0 && libraries[static_cast<std::size_t>(frame.library)]) ||
                     expression.Matches(FrameName(profile, frame)) ||
                     (!frame.file.empty() && expression.Matches(frame.file)));
  }
  return frames;
}

constexpr std::int64_t kNoAge = std::numeric_limits<std::int64_t>::min();

// The key by which groups, rows and branches are sorted, descending. `size` is that of a block.
std::uint64_t Rank(const Sums& sums, std::uint64_t size, std::optional<std::int64_t> oldest,
                   SortKey sort) {
  switch (sort) {
    case SortKey::kCount:
      return sums.blocks;
    case SortKey::kSize:
      return size;
    case SortKey::kAge:
      // Ages may be negative if the clock was set back. Sums without an age come last.
      return oldest ? (std::uint64_t{1} << 63U) ^ static_cast<std::uint64_t>(*oldest) : 0;
    case SortKey::kTotal:
      break;
  }
  return sums.bytes;
}

/// Numbers for frames: equal for frames of one name in one library.
struct FrameKeys {
  std::vector<std::uint32_t> key_of;   // by frame
  std::vector<std::uint32_t> example;  // by key: a frame
};

FrameKeys NumberFrames(const Profile& profile, RowKind kind) {
  FrameKeys keys;
  keys.key_of.reserve(profile.frames.size());
  std::map<std::pair<std::int32_t, std::string>, std::uint32_t> known;
  for (std::size_t i = 0; i < profile.frames.size(); ++i) {
    const Frame& frame = profile.frames[i];
    const auto [entry, added] = known.try_emplace(
        {frame.library, kind == RowKind::kLibrary ? "" : FrameName(profile, frame)},
        static_cast<std::uint32_t>(keys.example.size()));
    if (added) keys.example.push_back(static_cast<std::uint32_t>(i));
    keys.key_of.push_back(entry->second);
  }
  return keys;
}

std::string RowName(const Profile& profile, const Frame& frame, RowKind kind) {
  if (kind == RowKind::kFunction) return FrameName(profile, frame);
  const Library* library = profile.LibraryOf(frame);
  return library == nullptr ? kUnknownLibrary : library->path;
}

void SortChildren(std::vector<TreeNode>* tree, SortKey sort) {
  const auto rank = [&](std::uint32_t index) {
    const TreeNode& node = (*tree)[index];
    return std::pair(Rank(node.sums, MeanSize(node.sums), node.oldest, sort), node.sums.bytes);
  };
  for (TreeNode& node : *tree) std::ranges::stable_sort(node.children, std::greater(), rank);
}

void RaiseAge(std::optional<std::int64_t>* oldest, std::optional<std::int64_t> age) {
  if (age.value_or(kNoAge) > oldest->value_or(kNoAge)) *oldest = age;
}

}  // namespace

std::optional<std::int64_t> OldestAge(const Group& group) {
  if (group.ages.empty()) return std::nullopt;
  return *std::max_element(group.ages.begin(), group.ages.end());
}

std::uint64_t MeanSize(const Sums& sums) {
  return sums.blocks == 0 ? 0 : sums.bytes / sums.blocks;
}

std::int64_t AgeSpan(const Profile& profile) {
  std::int64_t span = 0;
  for (const Group& group : profile.groups) span = std::max(span, OldestAge(group).value_or(0));
  return span;
}

AgePattern PatternOf(const Group& group, std::int64_t span) {
  const std::size_t ages = group.IsExact() ? group.count : group.ages.size();
  if (ages < kMinAges || span < kQuarters) return AgePattern::kUnknown;
  const auto [youngest, oldest] = std::minmax_element(group.ages.begin(), group.ages.end());
  const bool late = *youngest < span / kQuarters;
  const bool early = *oldest > span - span / kQuarters;
  if (late) return early ? AgePattern::kGrowing : AgePattern::kRecent;
  return AgePattern::kSettled;
}

const char* PatternName(AgePattern pattern) {
  constexpr std::array kNames = {"unknown", "growing", "settled", "recent"};
  return kNames.at(static_cast<std::size_t>(pattern));
}

Selected SelectGroups(const Profile& profile, const Selection& selection) {
  std::vector<bool> matches;
  if (!selection.filter.empty()) matches = MatchFrames(profile, selection.filter);
  const auto wanted = [&](const Group& group) {
    if (group.total < selection.min_bytes) return false;
    if (selection.older_than && OldestAge(group).value_or(kNoAge) < *selection.older_than) {
      return false;
    }
    return matches.empty() || std::any_of(group.stack.begin(), group.stack.end(),
                                          [&](std::uint32_t frame) { return matches[frame]; });
  };
  Selected selected;
  for (std::size_t i = 0; i < profile.groups.size(); ++i) {
    const Group& group = profile.groups[i];
    if (group.kind != selection.kind) continue;
    if (wanted(group)) {
      selected.groups.push_back(i);
      selected.sums.Add(group);
    } else {
      selected.cut.Add(group);
    }
  }
  // The tracker sorts by total, but an edited report may not be sorted.
  std::ranges::stable_sort(selected.groups, std::greater(), [&](std::size_t index) {
    const Group& group = profile.groups[index];
    const Sums sums{group.total, 1, group.count};
    const bool by_age = selection.sort == SortKey::kAge;
    return Rank(sums, MeanSize(sums), by_age ? OldestAge(group) : std::nullopt, selection.sort);
  });
  return selected;
}

std::vector<Row> AddUp(const Profile& profile, const Selected& selected, RowKind kind,
                       SortKey sort) {
  const FrameKeys keys = NumberFrames(profile, kind);
  std::vector<Row> rows;
  for (const std::uint32_t example : keys.example) {
    const Frame& frame = profile.frames[example];
    rows.push_back({.name = RowName(profile, frame, kind), .library = frame.library});
  }
  // The group counted last for each row: a recursive function counts once.
  std::vector<std::size_t> counted(rows.size(), profile.groups.size());
  for (const std::size_t index : selected.groups) {
    const Group& group = profile.groups[index];
    if (!group.stack.empty()) rows[keys.key_of[group.stack.front()]].self.Add(group);
    const std::optional<std::int64_t> oldest = OldestAge(group);
    for (const std::uint32_t frame : group.stack) {
      const std::uint32_t key = keys.key_of[frame];
      if (std::exchange(counted[key], index) == index) continue;
      rows[key].inclusive.Add(group);
      RaiseAge(&rows[key].oldest, oldest);
    }
  }
  std::erase_if(rows, [](const Row& row) { return row.inclusive.groups == 0; });
  std::ranges::stable_sort(rows, std::greater(), [sort](const Row& row) {
    const Sums& sums = row.inclusive;
    const std::uint64_t rank =
        sort == SortKey::kTotal ? row.self.bytes : Rank(sums, MeanSize(sums), row.oldest, sort);
    return std::tuple(rank, sums.bytes, row.self.bytes);
  });
  return rows;
}

std::vector<TreeNode> BuildTree(const Profile& profile, const Selected& selected, TreeEnd end,
                                SortKey sort) {
  const FrameKeys keys = NumberFrames(profile, RowKind::kFunction);
  std::vector<TreeNode> tree(1);
  tree[0].frame = kNoFrame;
  std::unordered_map<std::uint64_t, std::uint32_t> known;  // (parent, key) to node
  for (const std::size_t index : selected.groups) {
    const Group& group = profile.groups[index];
    std::uint32_t at = 0;
    const std::optional<std::int64_t> oldest = OldestAge(group);
    tree[at].sums.Add(group);
    const std::size_t depth = group.stack.size();
    for (std::size_t i = 0; i < std::max<std::size_t>(depth, 1); ++i) {
      const std::size_t place = end == TreeEnd::kInnermost ? i : depth - 1 - i;
      const std::uint32_t frame = depth == 0 ? kNoFrame : group.stack[place];
      const std::uint32_t key = depth == 0 ? kNoFrame : keys.key_of[frame];
      const std::uint64_t step = (std::uint64_t{at} << 32U) | key;
      const auto [entry, added] = known.try_emplace(step, static_cast<std::uint32_t>(tree.size()));
      if (added) {
        tree[at].children.push_back(entry->second);
        tree.emplace_back().frame = frame;
      }
      at = entry->second;
      tree[at].sums.Add(group);
      RaiseAge(&tree[at].oldest, oldest);
    }
    tree[at].self.Add(group);
  }
  SortChildren(&tree, sort);
  return tree;
}

}  // namespace memleak
