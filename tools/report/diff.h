// What changed between two reports: their groups, matched by size and symbolized stack, so that
// neither another run's addresses nor another place in a function tells them apart. Called by the
// command `diff` and by whatever draws differences; single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

/// What became of a group. Nothing is called new or gone unless the other report certainly lacks
/// it.
enum class Change {
  kGrew,
  kShrank,
  kNew,
  kGone,
  kSame,
  kUnknown,  ///< may merely have crossed the end of the other report's list
};

/// The word for `change` in tables and documents.
const char* ChangeName(Change change);

/// What one report says of a group.
struct Side {
  std::uint64_t count = 0;  ///< blocks that are listed
  std::uint64_t total = 0;  ///< their bytes
  std::uint64_t parts = 0;  ///< groups of the report that make up this one: its call sites
  std::uint64_t lacks = 0;  ///< call sites of the other side that are not listed on this one
  std::uint64_t most = 0;   ///< bytes there may be at most: `total`, unless the list was cut
};

/// What both reports say of blocks of one size with one symbolized stack.
struct GroupChange {
  Side before;
  Side after;
  Change change = Change::kSame;
  std::size_t stack_id = 0;  ///< equal for groups of one stack
};

/// Two reports side by side.
struct Difference {
  Profile merged;  ///< libraries, frames and groups alone: first the groups of the later report in
                   ///< its order and with its figures, then those that it lacks, with none
  std::vector<GroupChange> changes;  ///< one for each of these groups
  std::size_t stacks = 0;            ///< stack ids are below this
};

/// Compares `before` with `after`. Groups of one report that differ only in where their functions
/// were called from, their call sites, are added up. What is certain is so under the assumption
/// that a site which neither report lists holds nothing.
Difference Compare(const Profile& before, const Profile& after);

/// Bytes by which a group surely grew; negative: shrank. 0 when that is unknown.
std::int64_t SureGrowth(const GroupChange& change);

/// `after` minus `before`, held within the type's range.
std::int64_t Growth(std::uint64_t before, std::uint64_t after);

}  // namespace memleak
