// SPDX-License-Identifier: Apache-2.0
// Compares two reports group by group. Used by `diff`, `html` and `watch`; single-threaded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/report/group_matcher.h"
#include "tools/report/model.h"

namespace memleak {

enum class Change {
  kGrew,
  kShrank,
  kNew,
  kGone,
  kSame,
  kUnknown,  ///< not judged: a report that omits groups may hide a part of the group
};

/// The words for changes in tables and documents, by Change.
inline constexpr std::array kChangeNames = {"grew", "shrank", "new", "gone", "same", "unknown"};

constexpr const char* ChangeName(Change change) {
  return kChangeNames.at(static_cast<std::size_t>(change));
}

/// Blocks of one size with one stack of functions, in both reports.
struct GroupChange {
  GroupValue before;
  GroupValue after;
  Change change = Change::kSame;
  std::int64_t growth = 0;   ///< bytes; 0 if the change is unknown
  std::size_t stack_id = 0;  ///< equal for all sizes of one stack
};

struct Difference {
  /// Libraries, frames and groups only: first the groups of the later report in its order and with
  /// its figures, then those that only the earlier one lists, with no blocks.
  Profile merged;
  std::vector<GroupChange> changes;  ///< one for each of these groups
};

/// Compares `before` with `after`. Groups of one report that differ only in their call sites are
/// added up. A call site that neither report lists counts as empty.
Difference Compare(const Profile& before, const Profile& after);

/// `after` minus `before`, clamped to the type's range.
std::int64_t Growth(std::uint64_t before, std::uint64_t after);

}  // namespace memleak
