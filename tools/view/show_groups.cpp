// SPDX-License-Identifier: Apache-2.0
// Groups with their stacks.
#include <algorithm>
#include <ostream>

#include "tools/base/files.h"
#include "tools/base/format.h"
#include "tools/view/show_views.h"

namespace memleak {
namespace {

constexpr std::size_t kFrameIndent = 5;
constexpr std::size_t kDeepIndent = 9;
// A function's name is cut for a location of up to this width.
constexpr std::size_t kLocationColumns = 30;

std::string Ages(const Group& group, const ViewOptions& options, std::int64_t span) {
  if (group.ages.empty()) return "";
  const auto [youngest, oldest] = std::minmax_element(group.ages.begin(), group.ages.end());
  const std::string about = group.own_ages ? "" : "about ";
  std::string text = "  age " + about + FormatAge(*youngest);
  if (*youngest != *oldest) text += ".." + FormatAge(*oldest);
  if (group.own_ages && group.ages.size() < group.count)
    text += " (" + std::to_string(group.ages.size()) + " of them)";
  if (options.selection.older_than) {
    const auto old = std::count_if(group.ages.begin(), group.ages.end(), [&](std::int64_t age) {
      return age >= *options.selection.older_than;
    });
    text += ", " + about + std::to_string(old) + " that old";
  }
  const AgePattern pattern = PatternOf(group, span);
  if (pattern == AgePattern::kUnknown) return text;
  return text + "  " + (group.own_ages ? "" : "perhaps ") + PatternName(pattern);
}

// Prints function and location on one line if they fit, else on two.
void PrintFrame(const std::string& function, const std::string& location, const Paint& paint,
                std::ostream& out) {
  const std::size_t room = kColumns - kFrameIndent;
  const std::string indent(kFrameIndent, ' ');
  const std::size_t both = Columns(function) + 2 + Columns(location);
  if (location.empty() || both <= room) {
    out << indent << paint.Name(FitWidth(function, room)) << (location.empty() ? "" : "  ")
        << paint.Faint(FitWidth(location, room)) << "\n";
  } else if (Columns(location) <= kLocationColumns) {
    out << indent << paint.Name(FitWidth(function, room - 2 - Columns(location))) << "  "
        << paint.Faint(FitWidth(location, room)) << "\n";
  } else {
    out << indent << paint.Name(FitWidth(function, room)) << "\n"
        << std::string(kDeepIndent, ' ') << paint.Faint(FitWidth(location, kColumns - kDeepIndent))
        << "\n";
  }
}

std::string Location(const Profile& profile, const Frame& frame) {
  if (!frame.file.empty()) return LastPart(frame.file) + ":" + std::to_string(frame.line);
  if (frame.function.empty()) return "";
  Frame nameless = frame;
  nameless.function.clear();
  return frame.library < 0 ? "" : FrameName(profile, nameless);
}

void PrintGroup(const Section& section, std::size_t number, const Group& group, std::int64_t span,
                std::ostream& out) {
  const Paint paint(section.options.color);
  const std::string bytes = FormatBytes(group.total);
  const std::string rest = "  " + Percent(group.total, section.whole) + "  " +
                           Counted(group.count, "block") + " of " + FormatBytes(group.size);
  const std::string ages = Ages(group, section.options, span);
  const std::string label = section.mark + std::to_string(number) + "  ";
  const bool fits = Columns(label + bytes + rest + ages) <= kColumns;
  out << "\n" << label << paint.Strong(bytes) << rest << (fits ? "" : "\n   ") << ages << "\n";
  PrintStack(section.profile, group, paint, out);
}

}  // namespace

void PrintStack(const Profile& profile, const Group& group, const Paint& paint, std::ostream& out) {
  for (const std::uint32_t index : group.stack) {
    const Frame& frame = profile.frames[index];
    PrintFrame(FrameName(profile, frame), Location(profile, frame), paint, out);
  }
}

Sums PrintGroups(const Section& section, std::ostream& out) {
  const std::int64_t span = AgeSpan(section.profile);
  const std::size_t top = section.options.top;
  Sums below;
  for (std::size_t i = 0; i < section.selected.groups.size(); ++i) {
    const Group& group = section.profile.groups[section.selected.groups[i]];
    if (top != 0 && i >= top) {
      below.Add(group);
    } else {
      PrintGroup(section, i + 1, group, span, out);
    }
  }
  return below;
}

}  // namespace memleak
