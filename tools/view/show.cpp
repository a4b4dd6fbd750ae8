// SPDX-License-Identifier: Apache-2.0
#include "tools/view/show_views.h"

#include <algorithm>
#include <ostream>
#include <utility>
#include <vector>

#include "tools/base/files.h"
#include "tools/base/format.h"
#include "tools/report/head_text.h"

namespace memleak {
namespace {

constexpr std::size_t kHintsShown = 5;
constexpr std::size_t kFrameIndent = 5;
constexpr std::size_t kDeepIndent = 9;
// A function's name is cut for a location of up to this width.
constexpr std::size_t kLocationColumns = 30;

std::string InGroups(const Sums& sums) {
  return FormatBytes(sums.bytes) + " in " + Counted(sums.groups, "stack");
}

void PrintProcess(const ProfileHead& head, std::ostream& out) {
  out << ProcessText(head) << "\n";
  std::string arguments;
  for (const std::string& argument : head.arguments) {
    const bool plain = !argument.empty() && argument.find_first_of(" \t\n'\"") == argument.npos;
    arguments += plain ? " " + argument : " '" + argument + "'";
  }
  if (!arguments.empty()) out << " " << FitWidth(arguments, OutputColumns() - 1) << "\n";
}

void PrintHead(const Profile& profile, const Sums& listed, std::ostream& out) {
  if (profile.head) PrintProcess(*profile.head, out);
  out << (profile.head ? "Profile " : "Report ") << FitWidth(profile.path, OutputColumns() - 8)
      << "\n";
  if (profile.IsEmpty()) {
    out << "  " << NothingHeldText(profile.head ? &*profile.head : nullptr) << "\n";
    return;
  }
  const std::string held = FormatBytes(profile.header.total_bytes) + " held (" +
                           Counted(profile.header.total_bytes, "byte") + ")";
  const std::string depth =
      "with at most " + Counted(profile.header.backtrace_size, "frame") + " each";
  if (profile.head) {
    out << OneLineOrTwo("  " + held, "in " + Counted(listed.blocks, "block")) << "\n"
        << OneLineOrTwo("  from " + Counted(listed.groups, "call stack"), depth) << "\n";
    if (profile.head->unrecorded != 0) {
      out << "  without " << Counted(profile.head->unrecorded, "block")
          << " that could not be recorded for lack of memory\n";
    }
    return;
  }
  const std::string groups =
      "in " + Counted(profile.header.groups, "stack") + ", counted once for each block size";
  out << OneLineOrTwo("  " + held, groups) << "\n"
      << OneLineOrTwo("  " + Counted(listed.blocks, "block") + " listed,", depth) << "\n"
      << "  A report contains neither its program nor all ages, and at most 1000 stacks.\n";
}

std::string Ages(const Group& group, const ViewOptions& options, std::int64_t span) {
  if (group.ages.empty()) return "";
  const auto [youngest, oldest] = std::minmax_element(group.ages.begin(), group.ages.end());
  const std::string about = group.own_ages ? "" : "about ";
  std::string text = "  age " + about + FormatAge(*youngest);
  if (*youngest != *oldest) text += ".." + FormatAge(*oldest);
  if (group.own_ages && !group.IsExact() && group.ages.size() < group.count)
    text += " (" + std::to_string(group.ages.size()) + " of them)";
  if (options.selection.older_than && !group.IsExact()) {
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
  const std::size_t room = OutputColumns() - kFrameIndent;
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
        << std::string(kDeepIndent, ' ')
        << paint.Faint(FitWidth(location, OutputColumns() - kDeepIndent)) << "\n";
  }
}

std::string Location(const Profile& profile, const Frame& frame) {
  if (!frame.file.empty()) return LastPart(frame.file) + ":" + std::to_string(frame.line);
  if (frame.function.empty()) return "";
  Frame nameless = frame;
  nameless.function.clear();
  return frame.library < 0 ? "" : FrameName(profile, nameless);
}

// `largest`: the bytes of a group with a full bar.
void PrintGroup(const Section& section, std::size_t number, const Group& group,
                std::uint64_t largest, std::int64_t span, std::ostream& out) {
  const Paint paint(section.options.color);
  const std::string bytes = FormatBytes(group.total);
  const std::string bar = ShareBar(group.total, largest, section.options);
  const std::string share = "  " + Percent(group.total, section.whole);
  const std::string rest = (bar.empty() ? "  " : " ") + Counted(group.count, "block") + " of " +
                           FormatSizes(group.size, group.max_size);
  const std::string ages = Ages(group, section.options, span);
  const std::string label = section.mark + std::to_string(number) + "  ";
  const bool fits = Columns(label + bytes + share + bar + rest + ages) <= OutputColumns();
  out << "\n"
      << label << paint.Strong(bytes) << share << paint.Bar(bar) << rest << (fits ? "" : "\n   ")
      << ages << "\n";
  PrintStack(section.profile, group, paint, out);
}

Sums PrintGroups(const Section& section, std::ostream& out) {
  const std::int64_t span = AgeSpan(section.profile);
  const std::size_t top = section.options.top;
  std::uint64_t largest = 0;
  for (const std::size_t index : section.selected.groups) {
    largest = std::max(largest, section.profile.groups[index].total);
  }
  Sums below;
  for (std::size_t i = 0; i < section.selected.groups.size(); ++i) {
    const Group& group = section.profile.groups[section.selected.groups[i]];
    if (top != 0 && i >= top) {
      below.Add(group);
    } else {
      PrintGroup(section, i + 1, group, largest, span, out);
    }
  }
  return below;
}

Sums PrintView(const Section& section, std::ostream& out) {
  switch (section.options.view) {
    case View::kLibraries:
      return PrintRows(section, RowKind::kLibrary, out);
    case View::kFunctions:
      return PrintRows(section, RowKind::kFunction, out);
    case View::kTree:
      return PrintTree(section, TreeEnd::kOutermost, out);
    case View::kCallers:
      return PrintTree(section, TreeEnd::kInnermost, out);
    case View::kGroups:
      break;
  }
  return PrintGroups(section, out);
}

const char* BelowText(View view) {
  switch (view) {
    case View::kLibraries:
    case View::kFunctions:
      return "allocated in other rows (--top 0 shows all)";
    case View::kTree:
    case View::kCallers:
      return "in other branches (--top 0 shows all)";
    case View::kGroups:
      break;
  }
  return "further down (--top 0 shows all)";
}

void PrintNotShown(View view, const Sums& below, const Sums& cut, const Sums& unlisted,
                   std::ostream& out) {
  const std::pair<const Sums&, const char*> all_parts[] = {
      {below, BelowText(view)},
      {cut, "that the options leave out"},
      {unlisted, "that the report does not list"}};
  Sums all;
  std::vector<std::pair<Sums, const char*>> parts;
  for (const auto& [sums, reason] : all_parts) {
    if (sums.groups == 0 && sums.bytes == 0) continue;
    all.Add(sums);
    parts.emplace_back(sums, reason);
  }
  out << "\n";
  if (parts.empty()) {
    out << "Not shown: nothing\n";
  } else if (parts.size() == 1) {
    out << OneLineOrTwo("Not shown: " + InGroups(all), parts[0].second) << "\n";
  } else {
    out << "Not shown: " << InGroups(all) << "\n";
    for (const auto& [sums, reason] : parts) out << "  " << InGroups(sums) << " " << reason << "\n";
  }
}

void PrintHints(const Profile& profile, const std::vector<bool>& shown, std::ostream& out) {
  std::vector<const Library*> lacking;
  for (const bool found : {false, true}) {  // libraries without any symbols first
    for (std::size_t i = 0; i < profile.libraries.size(); ++i) {
      const Library& library = profile.libraries[i];
      if (shown[i] && library.found == found && !library.hint.empty()) lacking.push_back(&library);
    }
  }
  if (lacking.empty()) return;
  out << "\nNo source lines without these files (see --symbols, --sysroot):\n";
  for (std::size_t i = 0; i < lacking.size() && i < kHintsShown; ++i) {
    const std::string owner = lacking[i]->found ? "  of " + LastPart(lacking[i]->path) : "";
    const std::string name = FitWidth(owner, OutputColumns() / 3);
    out << "  " << FitWidth(lacking[i]->hint, OutputColumns() - 2 - Columns(name)) << name << "\n";
  }
  if (lacking.size() > kHintsShown) {
    out << "  and " << FormatCount(lacking.size() - kHintsShown) << " more\n";
  }
}

// Marks the libraries on the stacks of `selected`.
void MarkLibraries(const Profile& profile, const Selected& selected, std::vector<bool>* marked) {
  for (const std::size_t index : selected.groups) {
    for (const std::uint32_t frame : profile.groups[index].stack) {
      const std::int32_t library = profile.frames[frame].library;
      if (library >= 0) (*marked)[static_cast<std::size_t>(library)] = true;
    }
  }
}

}  // namespace

void PrintStack(const Profile& profile, const Group& group, const Paint& paint, std::ostream& out) {
  for (const std::uint32_t index : group.stack) {
    const Frame& frame = profile.frames[index];
    PrintFrame(FrameName(profile, frame), Location(profile, frame), paint, out);
  }
}

void PrintProfile(const Profile& profile, const ViewOptions& options, std::ostream& out) {
  Selection selection = options.selection;
  selection.kind = GroupKind::kNative;
  const Selected native = SelectGroups(profile, selection);
  selection.kind = GroupKind::kJava;
  const Selected java = SelectGroups(profile, selection);
  const Sums listed = profile.Listed(GroupKind::kNative);

  PrintHead(profile, listed, out);
  const std::uint64_t whole = std::max(profile.header.total_bytes, listed.bytes);
  const Sums below = PrintView({profile, options, native, whole, "#"}, out);
  if (profile.header.groups != 0 || listed.groups != 0) {
    PrintNotShown(options.view, below, native.cut, profile.Unlisted(), out);
  }
  const Sums all_java = profile.Listed(GroupKind::kJava);
  if (all_java.groups != 0) {
    out << "\nJava-native stacks: " << InGroups(all_java) << ", in addition to the above\n";
    const Sums java_below = PrintView({profile, options, java, all_java.bytes, "J"}, out);
    PrintNotShown(options.view, java_below, java.cut, {}, out);
  }
  std::vector<bool> marked(profile.libraries.size());
  MarkLibraries(profile, native, &marked);
  PrintHints(profile, marked, out);
}

}  // namespace memleak
