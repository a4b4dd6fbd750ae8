// The plain-text view of a report: figures, then groups from the largest down.
#include "tools/show.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>
#include <sstream>

#include "tools/format.h"

namespace memleak {
namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kFrameIndent = 5;
constexpr std::size_t kDeepIndent = 9;
// A location shorter than this is worth cutting a function's name for.
constexpr std::size_t kLocationColumns = 30;

std::string Hex(std::uint64_t value) {
  std::ostringstream text;
  text << "0x" << std::hex << value;
  return text.str();
}

std::string FileName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string Percent(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) return "";
  std::array<char, 16> text{};
  const double share = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
  std::snprintf(text.data(), text.size(), "  %.1f %%", share);
  return text.data();
}

std::string Counted(std::uint64_t count, const std::string& noun) {
  return FormatCount(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string Blocks(std::uint64_t count, std::uint64_t size) {
  return Counted(count, "block") + " of " + FormatBytes(size);
}

std::string Ages(const NativeGroup& group) {
  if (group.ages.empty()) return "";
  const auto [youngest, oldest] = std::minmax_element(group.ages.begin(), group.ages.end());
  std::string text = "  age " + FormatAge(*oldest);
  if (*youngest != *oldest) text += ".." + FormatAge(*youngest);
  if (group.ages.size() < group.count)
    text += " (" + std::to_string(group.ages.size()) + " of them)";
  return text;
}

// One line where both fit, else the location on a line of its own.
void PrintFrame(const std::string& function, const std::string& location, std::ostream& out) {
  const std::size_t room = kColumns - kFrameIndent;
  const std::string indent(kFrameIndent, ' ');
  const std::size_t both = Columns(function) + 2 + Columns(location);
  if (location.empty() || both <= room) {
    out << indent << FitWidth(function, room) << (location.empty() ? "" : "  ")
        << FitWidth(location, room) << "\n";
  } else if (Columns(location) <= kLocationColumns) {
    out << indent << FitWidth(function, room - 2 - Columns(location)) << "  "
        << FitWidth(location, room) << "\n";
  } else {
    out << indent << FitWidth(function, room) << "\n"
        << std::string(kDeepIndent, ' ') << FitWidth(location, kColumns - kDeepIndent) << "\n";
  }
}

void PrintNativeFrame(const ReportFrame& frame, const Resolver& resolve, std::ostream& out) {
  if (!frame.known) {
    out << std::string(kFrameIndent, ' ') << "(in no mapped file)\n";
    return;
  }
  const std::string place =
      (frame.library.empty() ? "(nameless)" : FileName(frame.library)) + "+" + Hex(frame.offset);
  const Symbols& symbols = resolve(frame.library, frame.offset);
  if (symbols.empty()) return PrintFrame(place, "", out);
  for (const SourceFrame& symbol : symbols) {
    const std::string function = symbol.function.empty() ? "(inlined)" : symbol.function;
    if (symbol.file.empty()) {
      PrintFrame(function, place, out);
    } else {
      PrintFrame(function, FileName(symbol.file) + ":" + std::to_string(symbol.line), out);
    }
  }
}

template <typename Group>
std::vector<const Group*> Largest(const std::vector<Group>& groups, std::size_t top) {
  std::vector<const Group*> sorted;
  sorted.reserve(groups.size());
  for (const Group& group : groups) sorted.push_back(&group);
  // The tracker sorts already; a report put together by hand need not be.
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Group* a, const Group* b) { return a->total > b->total; });
  if (top != 0 && sorted.size() > top) sorted.resize(top);
  return sorted;
}

void PrintHead(const Report& report, const std::string& path, std::ostream& out) {
  std::uint64_t blocks = 0;
  for (const NativeGroup& group : report.native) blocks += group.count;
  out << "Report " << path << "\n";
  if (report.complete && report.header.groups == 0 && report.native.empty()) {
    out << "  " << kNothingHeld << "\n";
    return;
  }
  out << "  " << FormatBytes(report.header.total_bytes) << " held ("
      << Counted(report.header.total_bytes, "byte") << ") in "
      << Counted(report.header.groups, "group") << " of one size and one stack\n"
      << "  " << Counted(blocks, "block") << " listed, with at most "
      << Counted(report.header.backtrace_size, "frame") << " each\n";
}

void PrintNative(const Report& report, std::size_t top, const Resolver& resolve,
                 std::ostream& out) {
  std::uint64_t shown_bytes = 0;
  const std::vector<const NativeGroup*> shown = Largest(report.native, top);
  for (std::size_t i = 0; i < shown.size(); ++i) {
    const NativeGroup& group = *shown[i];
    shown_bytes += group.total;
    out << "\n#" << i + 1 << "  " << FormatBytes(group.total)
        << Percent(group.total, report.header.total_bytes) << "  "
        << Blocks(group.count, group.size) << Ages(group) << "\n";
    for (const ReportFrame& frame : group.frames) PrintNativeFrame(frame, resolve, out);
  }
  // Damaged heads may count less than is listed.
  const std::uint64_t groups = std::max<std::uint64_t>(report.header.groups, report.native.size());
  if (groups <= shown.size()) return;
  const std::uint64_t bytes =
      report.header.total_bytes > shown_bytes ? report.header.total_bytes - shown_bytes : 0;
  out << "\nNot shown: " << FormatBytes(bytes) << " in "
      << Counted(groups - shown.size(), "smaller group");
  if (shown.size() < report.native.size()) out << " (--top N shows more)";
  out << "\n";
}

void PrintJava(const Report& report, std::size_t top, std::ostream& out) {
  if (report.java.empty()) return;
  out << "\nJava-native stacks: " << Counted(report.java.size(), "group") << "\n";
  const std::vector<const JavaGroup*> shown = Largest(report.java, top);
  for (std::size_t i = 0; i < shown.size(); ++i) {
    const JavaGroup& group = *shown[i];
    out << "\nJ" << i + 1 << "  " << FormatBytes(group.total) << "  "
        << Blocks(group.count, group.size) << "\n";
    for (const JavaFrame& frame : group.frames) {
      const bool named = !frame.function.empty();
      PrintFrame(named ? Demangle(frame.function) : "(no name)", "+" + Hex(frame.rel_pc), out);
    }
  }
}

}  // namespace

void PrintReport(const Report& report, const std::string& path, std::size_t top,
                 const Resolver& resolve, std::ostream& out) {
  PrintHead(report, path, out);
  PrintNative(report, top, resolve, out);
  PrintJava(report, top, out);
}

}  // namespace memleak
