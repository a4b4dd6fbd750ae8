// SPDX-License-Identifier: Apache-2.0
// The data of a page. Columns of numbers and a table of strings: a profile may have several 100,000
// stacks, and a browser parses numbers faster than objects.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/export/html.h"
#include "tools/export/json.h"
#include "tools/export/json_writer.h"
#include "tools/report/aggregate.h"

namespace memleak {
namespace {

// Ages of a report are counted like those of a profile.
constexpr std::array<std::int64_t, 10> kAgeBounds = {0, 1, 4, 15, 60, 240, 900, 3600, 14400, 86400};

/// A JSON object with members of numbers. Text() ends it.
class Columns {
 public:
  /// A member: an array of `value(row)` for each of `rows`.
  template <typename Rows, typename Value>
  Columns& Add(const char* name, const Rows& rows, Value value) {
    Begin(name, '[');
    for (const auto& row : rows) {
      AppendNumber(value(row));
      text_.push_back(',');
    }
    return End(']');
  }

  /// A member: a string with a digit for each of `rows`.
  template <typename Rows, typename Value>
  Columns& AddDigits(const char* name, const Rows& rows, Value value) {
    Begin(name, '"');
    for (const auto& row : rows) text_.push_back(static_cast<char>('0' + value(row)));
    text_.append("\",");
    return *this;
  }

  std::string Text() {
    text_.back() = '}';
    return std::move(text_);
  }

 private:
  void Begin(const char* name, char bracket) {
    text_.append("\"").append(name).append("\":");
    text_.push_back(bracket);
  }
  Columns& End(char bracket) {
    if (text_.back() == ',') text_.pop_back();
    text_.push_back(bracket);
    text_.push_back(',');
    return *this;
  }

  template <typename Number>
  void AppendNumber(const std::optional<Number>& number) {
    if (number) return AppendNumber(*number);
    text_.append("null");
  }
  template <typename Number>
  void AppendNumber(const std::vector<Number>& numbers) {
    text_.push_back('[');
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      if (i != 0) text_.push_back(',');
      AppendNumber(numbers[i]);
    }
    text_.push_back(']');
  }
  template <typename Number>
  void AppendNumber(Number number) {
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    text_.append(digits.begin(), end);
  }

  std::string text_ = "{";
};

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

std::string FramesText(const Profile& profile, Strings* strings) {
  const std::vector<Frame>& frames = profile.frames;
  return Columns()
      .Add("name", frames, [&](const Frame& f) { return strings->IndexOf(FrameName(profile, f)); })
      .Add("library", frames, [](const Frame& f) { return f.library; })
      .Add("file", frames, [&](const Frame& f) { return strings->IndexOf(f.file); })
      .Add("line", frames, [](const Frame& f) { return f.line; })
      .Add("address", frames, [](const Frame& f) { return f.address != 0 ? f.address : f.offset; })
      .AddDigits("inlined", frames, [](const Frame& f) { return f.inlined ? 1 : 0; })
      .AddDigits("unresolved", frames, [](const Frame& f) { return f.function.empty() ? 1 : 0; })
      .Text();
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
  std::string Text() const {
    std::vector<std::uint32_t> jumps;
    for (std::uint32_t i = 0; i < nodes_.size(); ++i) {
      if (nodes_[i].parent != i) jumps.insert(jumps.end(), {i + 1, nodes_[i].parent});
    }
    return Columns()
        .Add("frame", nodes_, [](const Node& node) { return node.frame; })
        .Add("jumps", jumps, [](std::uint32_t number) { return number; })
        .Text();
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

std::string GroupsText(const PageContent& content, const std::vector<std::int64_t>& bounds,
                       StackTree* stacks) {
  const std::vector<Group>& groups = content.groups.groups;
  const std::int64_t span = AgeSpan(content.groups);
  Columns columns;
  columns.Add("size", groups, [](const Group& g) { return g.size; })
      .Add("larger", groups, [](const Group& g) { return SubtractSaturated(g.max_size, g.size); })
      .Add("count", groups, [](const Group& g) { return g.count; })
      .Add("total", groups, [](const Group& g) { return g.total; })
      .Add("youngest", groups, YoungestAge)
      .Add("oldest", groups, OldestAge)
      .Add("ages", groups, [&](const Group& g) { return AgeCounts(g, bounds); })
      .Add("node", groups, [&](const Group& g) { return stacks->Add(g.stack); })
      .AddDigits("java", groups, [](const Group& g) { return g.kind == GroupKind::kJava ? 1 : 0; })
      .AddDigits("ownAges", groups, [](const Group& g) { return g.own_ages ? 1 : 0; })
      .AddDigits("cut", groups, [](const Group& g) { return g.cut ? 1 : 0; })
      .AddDigits("pattern", groups,
                 [&](const Group& g) { return static_cast<int>(PatternOf(g, span)); });
  if (content.changes != nullptr) {
    const std::vector<GroupChange>& changes = *content.changes;
    columns.Add("beforeCount", changes, [](const GroupChange& c) { return c.before.count; })
        .Add("beforeTotal", changes, [](const GroupChange& c) { return c.before.total; })
        .AddDigits("status", changes,
                   [](const GroupChange& c) { return static_cast<int>(c.change); });
  }
  return columns.Text();
}

}  // namespace

std::string PageData(const PageContent& content) {
  const std::optional<ProfileHead>& process = content.report.head;
  std::vector<std::int64_t> bounds(kAgeBounds.begin(), kAgeBounds.end());
  if (process && !process->age_bounds.empty()) bounds = process->age_bounds;
  Strings strings;
  StackTree stacks;
  const std::string frames = FramesText(content.groups, &strings);
  const std::string groups = GroupsText(content, bounds, &stacks);
  std::ostringstream head;
  {
    JsonWriter json(head);
    json.BeginObject();
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
    json.MemberList("ageBounds", bounds);
    if (content.base != nullptr) {
      json.Key("base");
      json.BeginObject();
      WriteReport(*content.base, &json);
      WriteTotals(*content.base, &json);
      json.EndObject();
    }
    if (!content.trend.empty()) {
      json.Key("trend");
      json.Raw(content.trend);
    }
    json.MemberList("strings", strings.List());
  }
  std::string text(head.view());
  text.append(",\"frames\":").append(frames);
  text.append(",\"groups\":").append(groups);
  text.append(",\"stacks\":").append(stacks.Text()).append("}");
  return text;
}

}  // namespace memleak
