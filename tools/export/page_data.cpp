// SPDX-License-Identifier: Apache-2.0
// The data of a page: JSON, then columns of binary numbers. A profile may have several 100,000
// stacks, and a browser needs no time to read such columns.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/export/html.h"
#include "tools/export/json.h"
#include "tools/export/json_writer.h"
#include "tools/report/aggregate.h"
#include "tools/report/head_text.h"

namespace memleak {
namespace {

// Ages of a report are counted like those of a profile.
constexpr std::array<std::int64_t, 10> kAgeBounds = {0, 1, 4, 15, 60, 240, 900, 3600, 14400, 86400};

// A typed array begins at a multiple of its element's size.
void Align(std::string* bytes) {
  bytes->resize((bytes->size() + 7) / 8 * 8);
}

/// Arrays of numbers. Each has the narrowest of JavaScript's types that holds its values exactly.
class Columns {
 public:
  /// Adds `value(row)` for each of `rows`, or that member of it. A missing value is NaN.
  template <typename Rows, typename Value = std::identity>
  void Add(const char* name, const Rows& rows, Value value = {}) {
    std::vector<double> numbers;
    numbers.reserve(rows.size());
    for (const auto& row : rows) numbers.push_back(Number(std::invoke(value, row)));
    bool whole = true;
    double largest = 0;
    for (const double number : numbers) {
      whole = whole && number >= 0 && number <= std::numeric_limits<std::uint32_t>::max();
      largest = std::max(largest, number);
    }
    if (!whole) {
      Append<double>(name, "Float64Array", numbers);
    } else if (largest > std::numeric_limits<std::uint16_t>::max()) {
      Append<std::uint32_t>(name, "Uint32Array", numbers);
    } else if (largest > std::numeric_limits<std::uint8_t>::max()) {
      Append<std::uint16_t>(name, "Uint16Array", numbers);
    } else {
      Append<std::uint8_t>(name, "Uint8Array", numbers);
    }
  }

  /// Name, type and length of each column, in the order of their bytes.
  void WriteList(JsonWriter* json) const {
    json->Objects("columns", columns_, [&](const Column& column) {
      json->Member("name", column.name);
      json->Member("type", column.type);
      json->Member("length", column.length);
    });
  }

  const std::string& Bytes() const { return bytes_; }

 private:
  struct Column {
    const char* name;
    const char* type;
    std::size_t length;
  };

  template <typename Any>
  static double Number(const std::optional<Any>& value) {
    return value ? Number(*value) : std::numeric_limits<double>::quiet_NaN();
  }
  template <typename Any>
  static double Number(Any value) {
    return static_cast<double>(value);
  }

  template <typename Type>
  void Append(const char* name, const char* type, const std::vector<double>& numbers) {
    static_assert(std::endian::native == std::endian::little);
    columns_.push_back({name, type, numbers.size()});
    const std::vector<Type> values(numbers.begin(), numbers.end());
    bytes_.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(Type));
    Align(&bytes_);
  }

  std::vector<Column> columns_;
  std::string bytes_;
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

void AddFrames(const Profile& profile, Strings* strings, Columns* columns) {
  const std::vector<Frame>& frames = profile.frames;
  columns->Add("frames.name", frames,
               [&](const Frame& f) { return strings->IndexOf(FrameName(profile, f)); });
  columns->Add("frames.library", frames, [](const Frame& f) { return f.library + 1; });
  columns->Add("frames.file", frames, [&](const Frame& f) { return strings->IndexOf(f.file); });
  columns->Add("frames.line", frames, &Frame::line);
  columns->Add("frames.address", frames,
               [](const Frame& f) { return f.address != 0 ? f.address : f.offset; });
  columns->Add("frames.inlined", frames, &Frame::inlined);
  columns->Add("frames.unresolved", frames, [](const Frame& f) { return f.function.empty(); });
}

/// The stacks as a tree from the outermost frames: most stacks share most of their frames. Nodes
/// are counted from 1. All descendants of a node directly follow it, parents before children.
struct StackTree {
  std::vector<std::uint32_t> frames;  ///< by node
  std::vector<std::uint32_t> jumps;   ///< a node and its parent, if that is not the node before it
  std::vector<std::uint32_t> of_group;  ///< by group: the node of the innermost frame; 0 for none
};

StackTree BuildStackTree(const std::vector<Group>& groups) {
  std::vector<std::uint32_t> order(groups.size());
  std::iota(order.begin(), order.end(), 0U);
  std::ranges::sort(order, [&](std::uint32_t a, std::uint32_t b) {
    const std::vector<std::uint32_t>& left = groups[a].stack;
    const std::vector<std::uint32_t>& right = groups[b].stack;
    return std::lexicographical_compare(left.rbegin(), left.rend(), right.rbegin(), right.rend());
  });
  StackTree tree;
  tree.of_group.resize(groups.size());
  std::vector<std::uint32_t> path;  // the nodes of the last stack
  for (const std::uint32_t group : order) {
    const std::vector<std::uint32_t>& stack = groups[group].stack;
    std::size_t depth = 0;
    while (depth < std::min(path.size(), stack.size()) &&
           tree.frames[path[depth] - 1] == stack[stack.size() - 1 - depth]) {
      ++depth;
    }
    path.resize(depth);
    for (; depth < stack.size(); ++depth) {
      const std::uint32_t parent = path.empty() ? 0 : path.back();
      if (parent != tree.frames.size()) {
        tree.jumps.push_back(static_cast<std::uint32_t>(tree.frames.size() + 1));
        tree.jumps.push_back(parent);
      }
      tree.frames.push_back(stack[stack.size() - 1 - depth]);
      path.push_back(static_cast<std::uint32_t>(tree.frames.size()));
    }
    tree.of_group[group] = path.empty() ? 0 : path.back();
  }
  return tree;
}

// The number of blocks of each age that has any, with its index in `bounds`: by group, where its
// ages begin, and then where those of the last one end.
void AddAges(const std::vector<Group>& groups, const std::vector<std::int64_t>& bounds,
             Columns* columns) {
  std::vector<std::size_t> begins = {0};
  std::vector<std::size_t> ages;
  std::vector<std::uint64_t> blocks;
  for (const Group& group : groups) {
    std::vector<std::uint64_t> counts = group.age_counts;
    if (counts.empty()) {
      counts.resize(bounds.size());
      for (const std::int64_t age : group.ages) {
        const auto above = std::upper_bound(bounds.begin() + 1, bounds.end(), age);
        ++counts[static_cast<std::size_t>(above - bounds.begin()) - 1];
      }
    }
    for (std::size_t i = 0; i < counts.size(); ++i) {
      if (counts[i] == 0) continue;
      ages.push_back(i);
      blocks.push_back(counts[i]);
    }
    begins.push_back(ages.size());
  }
  columns->Add("ages.begin", begins);
  columns->Add("ages.age", ages);
  columns->Add("ages.blocks", blocks);
}

std::optional<std::int64_t> YoungestAge(const Group& group) {
  if (group.ages.empty()) return std::nullopt;
  return *std::ranges::min_element(group.ages);
}

void AddGroups(const PageContent& content, Columns* columns) {
  const std::vector<Group>& groups = content.groups.groups;
  const std::int64_t span = AgeSpan(content.groups);
  columns->Add("groups.size", groups, &Group::size);
  columns->Add("groups.larger", groups,
               [](const Group& g) { return SubtractSaturated(g.max_size, g.size); });
  columns->Add("groups.count", groups, &Group::count);
  columns->Add("groups.total", groups, &Group::total);
  columns->Add("groups.youngest", groups, YoungestAge);
  columns->Add("groups.oldest", groups, OldestAge);
  columns->Add("groups.java", groups, [](const Group& g) { return g.kind == GroupKind::kJava; });
  columns->Add("groups.ownAges", groups, &Group::own_ages);
  columns->Add("groups.cut", groups, &Group::cut);
  columns->Add("groups.pattern", groups,
               [&](const Group& g) { return static_cast<int>(PatternOf(g, span)); });
  const StackTree tree = BuildStackTree(groups);
  columns->Add("groups.node", tree.of_group);
  columns->Add("stacks.frame", tree.frames);
  columns->Add("stacks.jumps", tree.jumps);
  if (content.changes == nullptr) return;
  const std::vector<GroupChange>& changes = *content.changes;
  columns->Add("groups.beforeCount", changes, [](const GroupChange& c) { return c.before.count; });
  columns->Add("groups.beforeTotal", changes, [](const GroupChange& c) { return c.before.total; });
  columns->Add("groups.status", changes,
               [](const GroupChange& c) { return static_cast<int>(c.change); });
}

}  // namespace

std::string PageData(const PageContent& content) {
  const std::optional<ProfileHead>& process = content.report.head;
  std::vector<std::int64_t> bounds(kAgeBounds.begin(), kAgeBounds.end());
  if (process && !process->age_bounds.empty()) bounds = process->age_bounds;
  Strings strings;
  Columns columns;
  AddFrames(content.groups, &strings, &columns);
  AddGroups(content, &columns);
  AddAges(content.groups.groups, bounds, &columns);
  std::ostringstream head;
  {
    JsonWriter json(head);
    json.Object([&] {
      json.Member("format", "memleak-page");
      json.Member("version", 2);
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
      if (content.report.IsEmpty()) {
        json.Member("nothingHeld", NothingHeldText(process ? &*process : nullptr));
      }
      json.Member("strings", strings.List());
      columns.WriteList(&json);
    });
  }
  std::string data(head.view());
  data.push_back('\0');  // ends the JSON, which has none
  Align(&data);
  return data.append(columns.Bytes());
}

}  // namespace memleak
