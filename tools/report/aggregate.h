// SPDX-License-Identifier: Apache-2.0
// Selects groups of a profile, and sums them up by library, by function and along their stacks.
// Used by the views; single-threaded.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

enum class SortKey { kTotal, kCount, kSize, kAge };

/// Which groups are selected, and in what order.
struct Selection {
  GroupKind kind = GroupKind::kNative;
  std::string filter = {};      ///< POSIX extended regular expression: name, library or source
                                ///< file of a frame; empty for all
  std::uint64_t min_bytes = 0;  ///< of all blocks of a group
  std::optional<std::int64_t> older_than =
      {};                          ///< seconds; the least age of the oldest listed block
  SortKey sort = SortKey::kTotal;  ///< descending
};

/// The groups of a selection, as indices into Profile::groups.
struct Selected {
  std::vector<std::size_t> groups;
  Sums sums;  ///< of these
  Sums cut;   ///< of the other listed groups of the same kind
};

/// Throws UserError if the expression is invalid.
Selected SelectGroups(const Profile& profile, const Selection& selection);

/// The largest of a group's ages; empty without ages (Java-native groups have none).
std::optional<std::int64_t> OldestAge(const Group& group);

/// What the ages of a group show about its growth, by quarters of the oldest age in the report.
enum class AgePattern {
  kUnknown,  ///< fewer than four ages, or a span of less than four seconds
  kGrowing,  ///< blocks from the first and the last quarter
  kSettled,  ///< none from the last quarter: allocated once and kept
  kRecent,   ///< none from the first quarter, some from the last: new or short-lived
};

/// The oldest age listed in the profile; 0 without ages.
std::int64_t AgeSpan(const Profile& profile);
AgePattern PatternOf(const Group& group, std::int64_t span);

/// The word for `pattern` in tables and documents: "unknown", "growing", "settled" or "recent".
const char* PatternName(AgePattern pattern);

/// Sums of one library or function.
struct Row {
  std::string name;
  std::int32_t library = -1;                ///< index into Profile::libraries, -1 for none
  Sums self = {};                           ///< groups whose innermost frame lies in it
  Sums inclusive = {};                      ///< groups with any frame in it, each counted once
  std::optional<std::int64_t> oldest = {};  ///< age among the groups of `inclusive`
};

enum class RowKind { kLibrary, kFunction };

/// Sums up `selected` by library or by function. Rows are sorted by `sort`: kTotal by the bytes of
/// `self`, as main() calls everything; else by the blocks, mean size or oldest age of `inclusive`.
/// Frames without a library belong to "[unknown]". Inlined calls are functions like others.
/// Functions of one name in two libraries have two rows.
std::vector<Row> AddUp(const Profile& profile, const Selected& selected, RowKind kind,
                       SortKey sort);

/// In place of the index of a frame.
inline constexpr std::uint32_t kNoFrame = std::numeric_limits<std::uint32_t>::max();

/// A node of a call tree.
struct TreeNode {
  std::uint32_t frame = 0;  ///< an index into Profile::frames; kNoFrame without a stack
  Sums sums;                ///< groups whose stacks contain it
  Sums self;                ///< groups whose stacks end here
  std::optional<std::int64_t> oldest = {};  ///< age among the groups of `sums`
  std::vector<std::uint32_t> children;      ///< indices into the tree, sorted
};

enum class TreeEnd {
  kOutermost,  ///< from the start of a thread to the allocation
  kInnermost,  ///< from the allocation to its callers
};

/// The call tree of `selected`, starting from `end`. Children are sorted like the rows of AddUp.
/// Element 0 is the root, which has no frame. Groups without a stack are one child of the root.
std::vector<TreeNode> BuildTree(const Profile& profile, const Selected& selected, TreeEnd end,
                                SortKey sort);

/// The mean block size in bytes; 0 without blocks.
std::uint64_t MeanSize(const Sums& sums);

}  // namespace memleak
