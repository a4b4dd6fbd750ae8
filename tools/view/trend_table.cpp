// SPDX-License-Identifier: Apache-2.0
// The table of groups that grew between the reports of `watch`.
#include <algorithm>
#include <cmath>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "tools/base/format.h"
#include "tools/view/print.h"

namespace memleak {
namespace {

constexpr std::size_t kIndent = 5;

std::string SlopeText(const GroupTrend& group) {
  if (!group.line) return "";
  std::ostringstream text;
  text << FormatGrowth(group.line->slope) << "/min";
  if (group.line->margin) {
    text << " (95 %: " << FormatGrowth(group.line->slope - *group.line->margin) << " to "
         << FormatGrowth(group.line->slope + *group.line->margin) << "), r2 " << std::fixed
         << std::setprecision(3) << group.line->r_squared;
  }
  return text.str();
}

// "3", or "?" if unknown.
std::string CountText(const GroupValue& value) {
  return value.known ? FormatCount(value.count) : "?";
}

// "3 blocks", "1 block" or "? blocks".
std::string BlocksText(const GroupValue& value) {
  return value.known ? Counted(value.count, "block") : "? blocks";
}

// A frame's name and library, within the columns after the indent. The name of a frame without a
// function starts with the library already.
std::string FrameText(const std::string& name, const std::string& library) {
  constexpr std::size_t kMaxLibraryColumns = 24;
  if (library.empty() || name.starts_with(library + "+0x")) {
    return FitWidth(name, OutputColumns() - kIndent);
  }
  const std::string place = "  [" + FitWidth(library, kMaxLibraryColumns) + "]";
  return FitWidth(name, OutputColumns() - kIndent - kMaxLibraryColumns - 4) + place;
}

void PrintGroup(std::size_t number, const GroupTrend& group, std::ostream& out) {
  const std::optional<std::int64_t> growth = group.Growth();
  out << "#" << number << "  " << (growth ? FormatGrowth(static_cast<double>(*growth)) : "?")
      << "  " << SlopeText(group) << "\n     " << CountText(group.values.front()) << " -> "
      << BlocksText(group.values.back()) << " of " << FormatSizes(group.size, group.max_size);
  if (group.kind == GroupKind::kJava) out << ", Java-native";
  if (group.Known() < group.values.size()) {
    out << ", known in " << group.Known() << " of " << group.values.size() << " reports";
  }
  out << "\n";
  for (std::size_t i = 0; i < group.stack.size(); ++i) {
    out << std::string(kIndent, ' ') << FrameText(group.stack[i], group.libraries[i]) << "\n";
  }
}

bool Grew(const GroupTrend& group) {
  const std::optional<std::int64_t> growth = group.Growth();
  return growth ? *growth > 0 : group.line && group.line->slope > 0;
}

bool HasNoTrend(const GroupTrend& group) {
  return !group.Growth() && !group.line;
}

std::string UnlistedText(const SavedReport& report) {
  return FormatBytes(report.unlisted.bytes) + " in " + Counted(report.unlisted.groups, "stack");
}

}  // namespace

void PrintTrends(const std::vector<SavedReport>& reports, const std::vector<GroupTrend>& groups,
                 std::size_t top, std::ostream& out) {
  const SavedReport& first = reports.front();
  const SavedReport& last = reports.back();
  out << "From the first of " << reports.size() << " reports to the last, in "
      << FormatAge(std::llround(last.seconds - first.seconds)) << ": "
      << FormatGrowth(static_cast<double>(last.bytes) - static_cast<double>(first.bytes)) << " ("
      << FormatBytes(first.bytes) << " -> " << FormatBytes(last.bytes) << ")\n";
  std::size_t grew = 0;
  Sums without_trend;
  for (const GroupTrend& group : groups) {
    if (HasNoTrend(group)) {
      const auto largest = std::max_element(
          group.values.begin(), group.values.end(),
          [](const GroupValue& a, const GroupValue& b) { return a.total < b.total; });
      without_trend.Add({largest->total, 1, largest->count});
    }
    if (!Grew(group)) continue;
    ++grew;
    if (top == 0 || grew <= top) PrintGroup(grew, group, out);
  }
  // Groups come and go: there may be more of them than one report lists.
  out << grew << " of " << Counted(groups.size(), "stack") << " seen in any report grew";
  if (top != 0 && grew > top) out << "; the " << top << " that grew most are shown";
  out << "\n";
  if (without_trend.groups != 0) {
    out << "not judged: " << Counted(without_trend.groups, "stack") << " of "
        << FormatBytes(without_trend.bytes)
        << "; each is listed in full in at most one report.\nA report lists its 1000 largest "
           "stacks; no option changes that\n";
  }
  if (first.unlisted.groups != 0 || last.unlisted.groups != 0) {
    out << "not in the lists: " << UnlistedText(first) << " of the first report, "
        << UnlistedText(last) << "\nof the last; their growth is not known\n";
  }
}

}  // namespace memleak
