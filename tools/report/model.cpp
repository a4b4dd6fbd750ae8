// SPDX-License-Identifier: Apache-2.0
#include "tools/report/model.h"

#include <algorithm>
#include <sstream>

#include "tools/base/files.h"

namespace memleak {

void Group::Merge(const Group& other) {
  if (count == 0 || other.count == 0) {
    // Neither sizes nor ages of no blocks count.
    const Group& blocks = count == 0 ? other : *this;
    size = blocks.size;
    max_size = blocks.max_size;
    ages = blocks.ages;
    own_ages = blocks.own_ages;
    age_counts = blocks.age_counts;
  } else {
    size = std::min(size, other.size);
    max_size = std::max(max_size, other.max_size);
    ages.insert(ages.end(), other.ages.begin(), other.ages.end());
    own_ages = own_ages && other.own_ages;
    if (age_counts.size() != other.age_counts.size()) age_counts.clear();
    for (std::size_t i = 0; i < age_counts.size(); ++i) {
      age_counts[i] = AddSaturated(age_counts[i], other.age_counts[i]);
    }
    if (IsExact() && ages.size() > 2) {
      const auto [youngest, oldest] = std::ranges::minmax(ages);
      ages = {youngest, oldest};
    }
  }
  cut = cut || other.cut;
  count = AddSaturated(count, other.count);
  total = AddSaturated(total, other.total);
}

Sums Profile::Listed(GroupKind kind) const {
  Sums sums;
  for (const Group& group : groups) {
    if (group.kind == kind) sums.Add(group);
  }
  return sums;
}

bool Profile::ListsAll(GroupKind kind) const {
  // The head counts native groups only. All Java-native groups are listed.
  return IsWhole() && (kind == GroupKind::kJava || header.groups <= Listed(kind).groups);
}

Sums Profile::Unlisted() const {
  const Sums listed = Listed(GroupKind::kNative);
  Sums sums;
  sums.bytes = SubtractSaturated(header.total_bytes, listed.bytes);
  sums.groups = SubtractSaturated(header.groups, listed.groups);
  return sums;
}

std::string FrameName(const Profile& profile, const Frame& frame) {
  if (!frame.function.empty()) return frame.function;
  const Library* library = profile.LibraryOf(frame);
  if (library == nullptr) return "[unknown]";
  std::ostringstream name;
  name << (library->path.empty() ? "(nameless)" : LastPart(library->path)) << "+0x" << std::hex
       << (frame.address != 0 ? frame.address : frame.offset);
  return name.str();
}

}  // namespace memleak
