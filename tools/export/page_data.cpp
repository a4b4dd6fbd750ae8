// SPDX-License-Identifier: Apache-2.0
// The data of a page. Columns of numbers and a table of strings: a profile may have several 100,000
// stacks, and a browser parses numbers faster than objects.
#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/export/html.h"
#include "tools/export/json.h"
#include "tools/export/json_writer.h"
#include "tools/report/aggregate.h"

namespace memleak {
namespace {

// Ages of a report are counted like those of a profile.
constexpr std::array<std::int64_t, 10> kAgeBounds = {0, 1, 4, 15, 60, 240, 900, 3600, 14400, 86400};

// A digit for each of `rows`.
template <typename Rows, typename Of>
std::string Digits(const Rows& rows, Of of) {
  std::string digits;
  for (const auto& row : rows)
    digits += static_cast<char>('0' + static_cast<int>(std::invoke(of, row)));
  return digits;
}

/// Numbers strings in the order of their first use.
class Strings {
 public:
  std::size_t IndexOf(const std::string& text) {
    const auto [known, added] = known_.try_emplace(text, list_.size());
    if (added) list_.push_back(text);
    return known->second;
  }
  const std::vector<std::string>& List() const { return list_; }

 private:
  std::unordered_map<std::string, std::size_t> known_;
  std::vector<std::string> list_;
};

void WriteFrames(const Profile& profile, Strings* strings, JsonWriter* json) {
  const std::vector<Frame>& frames = profile.frames;
  json->Object("frames", [&] {
    json->Column("name", frames,
                 [&](const Frame& frame) { return strings->IndexOf(FrameName(profile, frame)); });
    json->Column("library", frames, &Frame::library);
    json->Column("file", frames, [&](const Frame& frame) { return strings->IndexOf(frame.file); });
    json->Column("line", frames, &Frame::line);
    json->Column("address", frames, [](const Frame& frame) {
      return frame.address != 0 ? frame.address : frame.offset;
    });
    json->Member("inlined", Digits(frames, &Frame::inlined));
    json->Member("unresolved",
                 Digits(frames, [](const Frame& frame) { return frame.function.empty(); }));
  });
}

/// The stacks as a tree from the outermost frames. Most stacks share most of their frames.
class StackTree {
 public:
  struct Node {
    std::uint32_t parent = 0;
    std::uint32_t frame = 0;
  };

  /// The number of the node that is the innermost frame, counted from 1; 0 for an empty stack.
  std::uint32_t Add(const std::vector<std::uint32_t>& stack) {
    std::uint32_t at = 0;
    for (std::size_t i = stack.size(); i-- > 0;) {
      const std::uint64_t step = (std::uint64_t{at} << 32U) | stack[i];
      const auto [known, added] =
          known_.try_emplace(step, static_cast<std::uint32_t>(nodes_.size() + 1));
      if (added) nodes_.push_back({at, stack[i]});
      at = known->second;
    }
    return at;
  }

  /// Most nodes follow their parent. For the others the parent is written.
  void Write(JsonWriter* json) const {
    std::vector<std::uint32_t> jumps;
    for (std::uint32_t i = 0; i < nodes_.size(); ++i) {
      if (nodes_[i].parent != i) jumps.insert(jumps.end(), {i + 1, nodes_[i].parent});
    }
    json->Object("stacks", [&] {
      json->Column("frame", nodes_, &Node::frame);
      json->Member("jumps", jumps);
    });
  }

 private:
  std::vector<Node> nodes_;
  std::unordered_map<std::uint64_t, std::uint32_t> known_;  // (parent, frame) to node
};

// Pairs of an index in `bounds` and a number of blocks.
std::vector<std::uint64_t> AgeCounts(const Group& group, const std::vector<std::int64_t>& bounds) {
  std::vector<std::uint64_t> counts = group.age_counts;
  if (counts.empty()) {
    counts.resize(bounds.size());
    for (const std::int64_t age : group.ages) {
      const auto above = std::upper_bound(bounds.begin() + 1, bounds.end(), age);
      ++counts[static_cast<std::size_t>(above - bounds.begin()) - 1];
    }
  }
  std::vector<std::uint64_t> pairs;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (counts[i] != 0) pairs.insert(pairs.end(), {i, counts[i]});
  }
  return pairs;
}

std::optional<std::int64_t> YoungestAge(const Group& group) {
  if (group.ages.empty()) return std::nullopt;
  return *std::ranges::min_element(group.ages);
}

void WriteGroups(const PageContent& content, const std::vector<std::int64_t>& bounds,
                 StackTree* stacks, JsonWriter* json) {
  const std::vector<Group>& groups = content.groups.groups;
  const std::int64_t span = AgeSpan(content.groups);
  json->Object("groups", [&] {
    json->Column("size", groups, &Group::size);
    json->Column("larger", groups,
                 [](const Group& group) { return SubtractSaturated(group.max_size, group.size); });
    json->Column("count", groups, &Group::count);
    json->Column("total", groups, &Group::total);
    json->Column("youngest", groups, YoungestAge);
    json->Column("oldest", groups, OldestAge);
    json->Column("ages", groups, [&](const Group& group) { return AgeCounts(group, bounds); });
    json->Column("node", groups, [&](const Group& group) { return stacks->Add(group.stack); });
    json->Member("java",
                 Digits(groups, [](const Group& group) { return group.kind == GroupKind::kJava; }));
    json->Member("ownAges", Digits(groups, &Group::own_ages));
    json->Member("cut", Digits(groups, &Group::cut));
    json->Member("pattern",
                 Digits(groups, [&](const Group& group) { return PatternOf(group, span); }));
    if (content.changes == nullptr) return;
    const std::vector<GroupChange>& changes = *content.changes;
    json->Column("beforeCount", changes,
                 [](const GroupChange& change) { return change.before.count; });
    json->Column("beforeTotal", changes,
                 [](const GroupChange& change) { return change.before.total; });
    json->Member("status", Digits(changes, &GroupChange::change));
  });
}

}  // namespace

std::string PageData(const PageContent& content) {
  const std::optional<ProfileHead>& process = content.report.head;
  std::vector<std::int64_t> bounds(kAgeBounds.begin(), kAgeBounds.end());
  if (process && !process->age_bounds.empty()) bounds = process->age_bounds;
  Strings strings;
  StackTree stacks;
  std::ostringstream text;
  {
    JsonWriter json(text);
    json.Object([&] {
      json.Member("format", "memleak-page");
      json.Member("version", 1);
      WriteReport(content.report, &json);
      if (content.totals.empty()) {
        WriteTotals(content.report, &json);
      } else {
        json.Key("totals");
        json.Raw(content.totals);
      }
      WriteLibraries(content.groups, &json);
      json.Member("ageBounds", bounds);
      if (content.base != nullptr) WriteBase(*content.base, &json);
      if (!content.trend.empty()) {
        json.Key("trend");
        json.Raw(content.trend);
      }
      WriteFrames(content.groups, &strings, &json);
      WriteGroups(content, bounds, &stacks, &json);
      stacks.Write(&json);
      json.Member("strings", strings.List());
    });
  }
  return std::move(text).str();
}

}  // namespace memleak
