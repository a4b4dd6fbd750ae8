// SPDX-License-Identifier: Apache-2.0
// The views of a report's groups. Single-threaded.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "tools/view/print.h"

namespace memleak {

/// Colours text, unless it is off.
class Paint {
 public:
  explicit Paint(bool on) : on_(on) {}
  /// For the main figure of a line, names of functions, and less important text.
  std::string Strong(const std::string& text) const { return Wrap("\033[1m", text); }
  std::string Name(const std::string& text) const { return Wrap("\033[36m", text); }
  std::string Faint(const std::string& text) const { return Wrap("\033[2m", text); }
  std::string Bar(const std::string& text) const { return Wrap("\033[34m", text); }

 private:
  std::string Wrap(const char* begin, const std::string& text) const {
    return on_ && !text.empty() ? begin + text + "\033[0m" : text;
  }
  bool on_;
};

/// The selected groups of one kind.
struct Section {
  const Profile& profile;
  const ViewOptions& options;
  const Selected& selected;
  std::uint64_t whole = 0;  ///< bytes that count as 100 %
  const char* mark = "#";   ///< before a group's number
};

/// " ███▌  ", for the share of `part` in `whole`; empty without bars.
std::string ShareBar(std::uint64_t part, std::uint64_t whole, const ViewOptions& options);

/// Prints a line or two for each frame of the group.
void PrintStack(const Profile& profile, const Group& group, const Paint& paint, std::ostream& out);

/// The views with sums. Each returns the groups of the selection that --top leaves out.
Sums PrintRows(const Section& section, RowKind kind, std::ostream& out);
Sums PrintTree(const Section& section, TreeEnd end, std::ostream& out);

}  // namespace memleak
