// SPDX-License-Identifier: Apache-2.0
// The difference of two reports: stacks with their block sizes, largest change first.
#include <algorithm>
#include <functional>
#include <iomanip>
#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/format.h"
#include "tools/report/diff.h"
#include "tools/report/head_text.h"
#include "tools/view/show_views.h"

namespace memleak {
namespace {

constexpr std::size_t kSizesShown = 5;

/// The changed groups of one stack.
struct StackRow {
  std::vector<std::size_t> groups;  // indices into the difference, largest change first
  std::int64_t growth = 0;          // bytes
};

std::uint64_t Magnitude(std::int64_t growth) {
  return growth < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(growth)
                    : static_cast<std::uint64_t>(growth);
}

const char* Sign(std::int64_t growth) {
  return growth > 0 ? "+" : growth < 0 ? "-" : "";
}

// "+1.5 KiB", "-3 B", "0 B".
std::string FormatChange(std::int64_t growth) {
  return Sign(growth) + FormatBytes(Magnitude(growth));
}

std::string FormatCountGrowth(std::uint64_t before, std::uint64_t after) {
  const std::int64_t growth = Growth(before, after);
  return Sign(growth) + FormatCount(Magnitude(growth));
}

std::int64_t AddClamped(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return a > 0 ? std::numeric_limits<std::int64_t>::max()
               : std::numeric_limits<std::int64_t>::min() + 1;
}

// The stacks that changed, largest change first.
std::vector<StackRow> RowsOf(const Difference& difference) {
  std::vector<StackRow> rows(difference.changes.size());  // by stack id; there are no more of them
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    const GroupChange& change = difference.changes[i];
    if (change.change == Change::kSame || change.change == Change::kUnknown) continue;
    StackRow& row = rows[change.stack_id];
    row.groups.push_back(i);
    row.growth = AddClamped(row.growth, change.growth);
  }
  std::erase_if(rows, [](const StackRow& row) { return row.groups.empty(); });
  for (StackRow& row : rows) {
    std::ranges::stable_sort(row.groups, std::greater(), [&](std::size_t group) {
      return Magnitude(difference.changes[group].growth);
    });
  }
  std::ranges::stable_sort(rows, std::greater(),
                           [](const StackRow& row) { return Magnitude(row.growth); });
  return rows;
}

// "grew   1.0 KiB -> 2.0 KiB, +2 blocks of 512 B", or "still 1 block".
std::string FormatGroup(const Group& group, const GroupChange& change) {
  const std::int64_t blocks = Growth(change.before.count, change.after.count);
  std::ostringstream text;
  text << std::left << std::setw(6) << ChangeName(change.change) << " "
       << FormatBytes(change.before.total) << " -> " << FormatBytes(change.after.total) << ", "
       << (blocks == 0 ? "still " + Counted(change.after.count, "block")
                       : Sign(blocks) + Counted(Magnitude(blocks), "block"))
       << " of " << FormatSizes(group.size, group.max_size);
  if (group.kind == GroupKind::kJava) text << ", Java-native";
  return text.str();
}

void PrintRow(const Difference& difference, const StackRow& row, std::size_t number,
              std::ostream& out) {
  const Profile& merged = difference.merged;
  out << "#" << number << "  " << FormatChange(row.growth) << "\n";
  const std::size_t shown = std::min(row.groups.size(), kSizesShown);
  for (std::size_t i = 0; i < shown; ++i) {
    const std::size_t group = row.groups[i];
    const std::string text = FormatGroup(merged.groups[group], difference.changes[group]);
    out << "   " << FitWidth(text, OutputColumns() - 3) << "\n";
  }
  if (row.groups.size() > shown) {
    out << "   and " << Counted(row.groups.size() - shown, "more size") << "\n";
  }
  PrintStack(merged, merged.groups[row.groups.front()], Paint(false), out);
}

void PrintStacks(const Difference& difference, const std::vector<StackRow>& rows, const char* title,
                 std::size_t top, std::ostream& out) {
  if (rows.empty()) return;
  const std::size_t shown = top == 0 ? rows.size() : std::min(top, rows.size());
  std::int64_t growth = 0;
  std::int64_t rest = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    growth = AddClamped(growth, rows[i].growth);
    if (i >= shown) rest = AddClamped(rest, rows[i].growth);
  }
  out << "\n"
      << title << ": " << FormatChange(growth) << " in " << Counted(rows.size(), "stack") << "\n";
  for (std::size_t i = 0; i < shown; ++i) PrintRow(difference, rows[i], i + 1, out);
  if (rows.size() > shown) {
    out << "and " << FormatChange(rest) << " in " << Counted(rows.size() - shown, "more stack")
        << " (--top 0 shows all)\n";
  }
}

// Whether a line of the head is damaged, so that its figures read as 0.
bool HeadIsDamaged(const Profile& profile) {
  if (profile.head) return false;  // its figures are not in the head
  constexpr std::uint64_t kHeadLines = 5;
  return std::any_of(profile.damaged.begin(), profile.damaged.end(),
                     [](const DamagedLine& line) { return line.number <= kHeadLines; });
}

void PrintGrowthOfAll(const Profile& before, const Profile& after, std::ostream& out) {
  if (HeadIsDamaged(before) || HeadIsDamaged(after)) {
    out << "all  not known: the head of a report is damaged\n";
    return;
  }
  const std::uint64_t old_bytes = before.header.total_bytes;
  const std::uint64_t new_bytes = after.header.total_bytes;
  const std::int64_t growth = Growth(old_bytes, new_bytes);
  std::ostringstream all;
  all << "all  " << FormatChange(growth) << " (" << FormatCountGrowth(old_bytes, new_bytes)
      << " bytes";
  if (old_bytes != 0) {
    const double share = 100.0 * static_cast<double>(growth) / static_cast<double>(old_bytes);
    all << ", " << std::showpos << std::fixed << std::setprecision(1) << share << " %";
  }
  all << "),";
  const std::int64_t more = Growth(before.header.groups, after.header.groups);
  const std::string groups =
      more == 0 ? "in as many stacks" : Sign(more) + Counted(Magnitude(more), "stack");
  out << OneLineOrTwo(all.str(), groups) << "\n";
}

void PrintTotals(const Profile& before, const Profile& after, std::ostream& out) {
  for (const auto& [label, profile] : {std::pair("old  ", &before), std::pair("new  ", &after)}) {
    const std::string held = label + FormatBytes(profile->header.total_bytes) + " held in " +
                             Counted(profile->header.groups, "stack") + " ";
    out << OneLineOrTwo(held, FitWidth(profile->path, 40)) << "\n";
    if (profile->head) out << "     " << ProcessText(*profile->head) << "\n";
  }
  PrintGrowthOfAll(before, after, out);
  const Sums old_java = before.Listed(GroupKind::kJava);
  const Sums new_java = after.Listed(GroupKind::kJava);
  if (old_java.groups + new_java.groups != 0) {
    out << "in addition, Java-native: " << FormatBytes(old_java.bytes) << " -> "
        << FormatBytes(new_java.bytes) << "\n";
  }
}

void PrintUnchanged(const Difference& difference, std::ostream& out) {
  Sums same;
  bool merged = false;
  for (const GroupChange& change : difference.changes) {
    if (change.change != Change::kSame) continue;
    same.Add({change.after.total, 1, change.after.count});
    merged |= change.before.sites > 1 || change.after.sites > 1;
  }
  if (same.groups == 0) return;
  // The reports count each call site as a group.
  out << "Unchanged: " << FormatBytes(same.bytes) << " in " << Counted(same.groups, "stack")
      << (merged ? " (call sites of a function as one)" : "") << ".\n";
}

// Prints how many groups are not judged, the reason, and how to reduce their number.
void PrintNotJudged(const Profile& before, const Profile& after, const Difference& difference,
                    std::ostream& out) {
  Sums old_sums;
  Sums new_sums;
  std::size_t largest = 0;
  std::uint64_t most = 0;
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    const GroupChange& change = difference.changes[i];
    if (change.change != Change::kUnknown) continue;
    old_sums.Add({change.before.total, 1, change.before.count});
    new_sums.Add({change.after.total, 1, change.after.count});
    const std::uint64_t bytes = std::max(change.before.total, change.after.total);
    if (new_sums.groups == 1 || bytes > most) largest = i;
    most = std::max(most, bytes);
  }
  if (new_sums.groups == 0) return;
  const Group& group = difference.merged.groups[largest];
  const std::string function =
      group.stack.empty()
          ? "[no stack]"
          : FrameName(difference.merged, difference.merged.frames[group.stack.front()]);
  const GroupChange& change = difference.changes[largest];
  const std::string sums = "Not judged: " + Counted(new_sums.groups, "stack") + ", " +
                           FormatBytes(old_sums.bytes) + " -> " + FormatBytes(new_sums.bytes) + ";";
  const std::string example = "the largest: " + FormatBytes(change.before.total) + " -> " +
                              FormatBytes(change.after.total) + " in " + FitWidth(function, 40);
  out << OneLineOrTwo(sums, example) << "\n"
      << "One report lists them, or call sites of them, and the other one omits stacks.\n";
  if (!before.IsWhole() || !after.IsWhole()) {
    out << "A report is truncated or damaged: write it again.\n";
  } else {
    out << "A report lists its 1000 largest stacks; no option changes that. There are\n"
           "fewer stacks with a smaller --depth, or when recording starts later.\n";
  }
}

// The tracker writes the same head for no groups and for more than it can sort.
void PrintEmpty(const char* label, const Profile& profile, std::ostream& out) {
  if (profile.head || profile.header.groups != 0 || HeadIsDamaged(profile)) return;
  out << "The " << label << " report counts no stack: there was none, or more than 60,000.\n";
}

void PrintUnlisted(const char* label, const Profile& profile, std::ostream& out) {
  const Sums unlisted = profile.Unlisted();
  if (unlisted.groups == 0 && unlisted.bytes == 0) return;
  const std::string counts = std::string("The ") + label + " report counts " +
                             FormatBytes(unlisted.bytes) + " more in " +
                             Counted(unlisted.groups, "stack");
  out << OneLineOrTwo(counts, "that it does not list.") << "\n";
}

}  // namespace

void PrintDifference(const Profile& before, const Profile& after, std::size_t top,
                     std::ostream& out) {
  PrintTotals(before, after, out);
  const Difference difference = Compare(before, after);
  std::vector<StackRow> grew = RowsOf(difference);
  const auto shrank_begin = std::stable_partition(
      grew.begin(), grew.end(), [](const StackRow& row) { return row.growth >= 0; });
  const std::vector<StackRow> shrank(shrank_begin, grew.end());
  grew.erase(shrank_begin, grew.end());
  if (grew.empty() && shrank.empty()) out << "\nNo stack is known to have changed.\n";
  PrintStacks(difference, grew, "Grew", top, out);
  PrintStacks(difference, shrank, "Shrank", top, out);
  std::ostringstream notes;
  PrintUnchanged(difference, notes);
  PrintNotJudged(before, after, difference, notes);
  PrintEmpty("old", before, notes);
  PrintEmpty("new", after, notes);
  PrintUnlisted("old", before, notes);
  PrintUnlisted("new", after, notes);
  if (!notes.str().empty()) out << "\n" << notes.str();
}

}  // namespace memleak
