// SPDX-License-Identifier: Apache-2.0
// A profile as folded stacks.
#include <cstdint>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/base/names.h"
#include "tools/export/formats.h"

namespace memleak {
namespace {

std::string Fold(const Group& group, const std::vector<std::string>& names) {
  std::string line = group.kind == GroupKind::kJava ? "[java-native]" : "";
  for (auto frame = group.stack.rbegin(); frame != group.stack.rend(); ++frame) {
    if (!line.empty()) line += ';';
    line += names[*frame];
  }
  return line.empty() ? "[unknown]" : line;
}

}  // namespace

void WriteFolded(const Profile& profile, Measure measure, std::ostream& out) {
  std::vector<std::string> names;
  names.reserve(profile.frames.size());
  for (const Frame& frame : profile.frames) {
    names.push_back(PercentEscape(FrameName(profile, frame)));
  }
  std::unordered_map<std::string, std::size_t> known;
  std::vector<const std::string*> lines;
  std::vector<std::uint64_t> sums;
  for (const Group& group : profile.groups) {
    const auto [line, added] = known.try_emplace(Fold(group, names), lines.size());
    if (added) {
      lines.push_back(&line->first);
      sums.push_back(0);
    }
    sums[line->second] += measure == Measure::kBytes ? group.total : group.count;
  }
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (sums[i] != 0) out << *lines[i] << ' ' << sums[i] << '\n';
  }
}

}  // namespace memleak
