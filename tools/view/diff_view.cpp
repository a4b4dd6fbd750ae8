// Rows by stack, largest change first, with what is certain and what is not kept apart.
#include "tools/view/diff_view.h"

#include <algorithm>
#include <iomanip>
#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/format.h"
#include "tools/report/diff.h"
#include "tools/view/layout.h"

namespace memleak {
namespace {

constexpr std::size_t kFrameIndent = 5;
constexpr std::size_t kLocationColumns = 30;
constexpr std::size_t kSizesShown = 5;

/// What became of all groups of one stack.
struct StackRow {
  std::vector<std::size_t> groups;  // indices into the difference, largest change first
  std::int64_t growth = 0;          // what is certain of it
};

std::uint64_t Magnitude(std::int64_t growth) {
  return growth < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(growth)
                    : static_cast<std::uint64_t>(growth);
}

// "+1.5 KiB", "-3 B", "0 B".
std::string FormatGrowth(std::int64_t growth) {
  const char* sign = growth > 0 ? "+" : "-";
  return (growth == 0 ? "" : sign) + FormatBytes(Magnitude(growth));
}

std::string FormatCountGrowth(std::uint64_t before, std::uint64_t after) {
  const std::int64_t growth = Growth(before, after);
  const char* sign = growth > 0 ? "+" : "-";
  return (growth == 0 ? "" : sign) + FormatCount(Magnitude(growth));
}

std::int64_t AddClamped(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return a > 0 ? std::numeric_limits<std::int64_t>::max()
               : std::numeric_limits<std::int64_t>::min() + 1;
}

// The stacks with a group that changed, in the order of their change.
std::vector<StackRow> RowsOf(const Difference& difference) {
  std::vector<StackRow> all(difference.stacks);
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    const GroupChange& change = difference.changes[i];
    if (change.change == Change::kSame || change.change == Change::kUnknown) continue;
    StackRow& row = all[change.stack_id];
    row.groups.push_back(i);
    row.growth = AddClamped(row.growth, SureGrowth(change));
  }
  const auto magnitude = [&](std::size_t index) {
    return Magnitude(SureGrowth(difference.changes[index]));
  };
  std::vector<StackRow> rows;
  for (StackRow& row : all) {
    if (row.groups.empty()) continue;
    std::stable_sort(row.groups.begin(), row.groups.end(),
                     [&](std::size_t a, std::size_t b) { return magnitude(a) > magnitude(b); });
    rows.push_back(std::move(row));
  }
  std::stable_sort(rows.begin(), rows.end(), [](const StackRow& a, const StackRow& b) {
    return Magnitude(a.growth) > Magnitude(b.growth);
  });
  return rows;
}

// "1.0 KiB", or "0 B to 2.0 KiB" where the list ends before the rest.
std::string FormatSide(const Side& side) {
  if (side.most == side.total) return FormatBytes(side.total);
  if (side.most == std::numeric_limits<std::uint64_t>::max()) {
    return FormatBytes(side.total) + " or more";
  }
  return FormatBytes(side.total) + " to " + FormatBytes(side.most);
}

// "+40 blocks of 10 B", as far as that is certain.
std::string FormatBlocks(const Group& group, const GroupChange& change) {
  const Side& before = change.before;
  const Side& after = change.after;
  const bool exact = before.most == before.total && after.most == after.total;
  const std::uint64_t whole = Magnitude(SureGrowth(change));
  const std::uint64_t blocks =
      exact || group.size == 0 ? Magnitude(Growth(before.count, after.count)) : whole / group.size;
  const char* sign = change.change == Change::kShrank || change.change == Change::kGone ? "-" : "+";
  return (exact ? "" : "at least ") + (sign + FormatCount(blocks)) +
         (blocks == 1 ? " block of " : " blocks of ") + FormatBytes(group.size);
}

std::string FormatGroup(const Group& group, const GroupChange& change) {
  std::ostringstream text;
  text << std::left << std::setw(6) << ChangeName(change.change) << " " << FormatSide(change.before)
       << " -> " << FormatSide(change.after) << ", " << FormatBlocks(group, change);
  if (group.kind == GroupKind::kJava) text << ", Java-native";
  return text.str();
}

void PrintStack(const Profile& profile, const Group& group, std::ostream& out) {
  for (const std::uint32_t index : group.stack) {
    const Frame& frame = profile.frames[index];
    std::string place;
    if (!frame.file.empty()) {
      place = "  " + FitWidth(BaseName(frame.file), kLocationColumns);
      if (frame.line != 0) place += ":" + std::to_string(frame.line);
    }
    const std::size_t room = kColumns - kFrameIndent - Columns(place);
    out << std::string(kFrameIndent, ' ') << FitWidth(FrameName(profile, frame), room) << place
        << "\n";
  }
}

void PrintRow(const Difference& difference, const StackRow& row, std::size_t number,
              std::ostream& out) {
  const Profile& merged = difference.merged;
  out << "#" << number << "  " << FormatGrowth(row.growth) << "\n";
  const std::size_t shown = std::min(row.groups.size(), kSizesShown);
  for (std::size_t i = 0; i < shown; ++i) {
    out << "   "
        << FitWidth(FormatGroup(merged.groups[row.groups[i]], difference.changes[row.groups[i]]),
                    kColumns - 3)
        << "\n";
  }
  if (row.groups.size() > shown) {
    out << "   and " << row.groups.size() - shown << " more sizes\n";
  }
  PrintStack(merged, merged.groups[row.groups.front()], out);
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
      << title << ": " << FormatGrowth(growth) << " in " << Counted(rows.size(), "stack") << "\n";
  for (std::size_t i = 0; i < shown; ++i) PrintRow(difference, rows[i], i + 1, out);
  if (rows.size() > shown) {
    out << "and " << FormatGrowth(rest) << " in " << Counted(rows.size() - shown, "more stack")
        << " (--top 0 shows all)\n";
  }
}

void PrintHead(const char* label, const Profile& profile, std::ostream& out) {
  const std::string held = std::string(label) + "  " + FormatBytes(profile.header.total_bytes) +
                           " held in " + Counted(profile.header.groups, "group") + " ";
  out << OneLineOrTwo(held, FitWidth(profile.path, 40)) << "\n";
}

// Whether a line of the head could not be read: its figures are 0 then.
bool HeadIsDamaged(const Profile& profile) {
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
  all << "all  " << FormatGrowth(growth) << " (" << FormatCountGrowth(old_bytes, new_bytes)
      << " bytes";
  if (old_bytes != 0) {
    const double share = 100.0 * static_cast<double>(growth) / static_cast<double>(old_bytes);
    all << ", " << std::showpos << std::fixed << std::setprecision(1) << share << " %";
  }
  all << "),";
  const std::string groups =
      FormatCountGrowth(before.header.groups, after.header.groups) + " groups";
  out << OneLineOrTwo(all.str(), groups) << "\n";
}

void PrintTotals(const Profile& before, const Profile& after, std::ostream& out) {
  PrintHead("old", before, out);
  PrintHead("new", after, out);
  PrintGrowthOfAll(before, after, out);
  const Sums old_java = before.Listed(GroupKind::kJava);
  const Sums new_java = after.Listed(GroupKind::kJava);
  if (old_java.groups + new_java.groups != 0) {
    out << "beside these, Java-native: " << FormatBytes(old_java.bytes) << " -> "
        << FormatBytes(new_java.bytes) << "\n";
  }
}

// Reports of nothing, and of more groups than the tracker puts in order, are the same.
void PrintEmpty(const char* label, const Profile& profile, std::ostream& out) {
  if (profile.header.groups != 0 || HeadIsDamaged(profile)) return;
  out << "The " << label << " report counts no group: there was none, or more than 60,000.\n";
}

void PrintOutside(const char* label, const Profile& profile, std::ostream& out) {
  const Sums unlisted = profile.Unlisted();
  if (unlisted.groups == 0 && unlisted.bytes == 0) return;
  const std::string counts = std::string("The ") + label + " report counts " +
                             FormatBytes(unlisted.bytes) + " more in " +
                             Counted(unlisted.groups, "group");
  out << OneLineOrTwo(counts, "that it does not list.") << "\n";
}

/// Groups of one kind of change together.
struct Together {
  std::size_t groups = 0;
  std::uint64_t before = 0;
  std::uint64_t after = 0;
  bool merged = false;  // some of them are several call sites
};

Together SumUp(const Difference& difference, Change wanted) {
  Together sums;
  for (const GroupChange& change : difference.changes) {
    if (change.change != wanted) continue;
    ++sums.groups;
    sums.merged |= change.before.parts > 1 || change.after.parts > 1;
    sums.before = AddSaturated(sums.before, change.before.total);
    sums.after = AddSaturated(sums.after, change.after.total);
  }
  return sums;
}

void PrintUnchanged(const Difference& difference, std::ostream& out) {
  const Together same = SumUp(difference, Change::kSame);
  if (same.groups == 0) return;
  // Fewer than the reports count, since theirs are groups of one call site.
  out << "Unchanged: " << FormatBytes(same.after) << " in " << Counted(same.groups, "group")
      << (same.merged ? " (call sites of a function as one)" : "") << ".\n";
}

bool IsFlawed(const Profile& profile) {
  return !profile.complete || profile.damaged_lines > 0;
}

// Why a call site may be missing from the side that lacks it: the list was cut, as any long one is,
// or it could not be read.
const char* WhyUncertain(const Profile& before, const Profile& after,
                         const Difference& difference) {
  bool unread = false;
  bool cut = false;
  for (const GroupChange& change : difference.changes) {
    if (change.change != Change::kUnknown) continue;
    for (const auto& [side, profile] :
         {std::pair(&change.before, &before), std::pair(&change.after, &after)}) {
      if (side->lacks != 0) (IsFlawed(*profile) ? unread : cut) = true;
    }
  }
  if (!unread) return "where a call site is missing it may merely have been left out of the list.";
  return cut ? "where a call site is missing it may be in lines that could not be read, or have\n"
               "been left out of the list."
             : "where a call site is missing it may be in lines that could not be read.";
}

void PrintUncertain(const Profile& before, const Profile& after, const Difference& difference,
                    std::ostream& out) {
  const Together unknown = SumUp(difference, Change::kUnknown);
  if (unknown.groups == 0) return;
  out << "Nothing certain can be said of " << Counted(unknown.groups, "group") << " ("
      << FormatBytes(unknown.before) << " -> " << FormatBytes(unknown.after) << "):\n"
      << WhyUncertain(before, after, difference) << "\n";
}

}  // namespace

void PrintDifference(const Profile& before, const Profile& after, std::size_t top,
                     std::ostream& out) {
  PrintTotals(before, after, out);
  const Difference difference = Compare(before, after);
  std::vector<StackRow> grew;
  std::vector<StackRow> shrank;
  for (StackRow& row : RowsOf(difference)) {
    (row.growth < 0 ? shrank : grew).push_back(std::move(row));
  }
  if (grew.empty() && shrank.empty()) out << "\nNo group is known to have changed.\n";
  PrintStacks(difference, grew, "Grew", top, out);
  PrintStacks(difference, shrank, "Shrank", top, out);
  std::ostringstream notes;
  PrintUnchanged(difference, notes);
  PrintUncertain(before, after, difference, notes);
  PrintEmpty("old", before, notes);
  PrintEmpty("new", after, notes);
  PrintOutside("old", before, notes);
  PrintOutside("new", after, notes);
  if (!notes.str().empty()) out << "\n" << notes.str();
}

}  // namespace memleak
