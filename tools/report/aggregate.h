// What a profile adds up to: a choice of its groups, and their sums by library, by function and
// along their stacks. Knows nothing of printing. Called by the views; single-threaded.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

enum class SortKey { kTotal, kCount, kSize, kAge };

/// Which groups are looked at, and in what order.
struct Selection {
  GroupKind kind = GroupKind::kNative;
  std::string filter = {};      ///< POSIX extended regular expression, empty for all: on
                                ///< the name, library or source file of any frame
  std::uint64_t min_bytes = 0;  ///< of all blocks of a group
  std::optional<std::int64_t> older_than =
      {};                          ///< seconds: the oldest listed block is at least so old
  SortKey sort = SortKey::kTotal;  ///< falling
};

/// The groups of a selection, as indices into Profile::groups.
struct Selected {
  std::vector<std::size_t> groups;
  Sums sums;  ///< of these
  Sums cut;   ///< of the listed groups of the same kind that the selection leaves out
};

/// Applies `selection`. Throws UserError when its expression cannot be read.
Selected SelectGroups(const Profile& profile, const Selection& selection);

/// The largest of a group's ages; empty without ages (Java-native groups have none).
std::optional<std::int64_t> OldestAge(const Group& group);

/// What the ages of a group say of its growth, measured against the span that the report covers:
/// the oldest age that it lists anywhere.
enum class AgePattern {
  kUnknown,  ///< fewer than four ages, or a span of less than four seconds
  kGrowing,  ///< blocks from the first and from the last quarter of the span: they keep coming and
             ///< old ones stay
  kSettled,  ///< none from the last quarter: made once and kept
  kRecent,   ///< none from the first quarter, some from the last: young, or coming and going
};

/// The oldest age listed in the profile; 0 without ages.
std::int64_t AgeSpan(const Profile& profile);
AgePattern PatternOf(const Group& group, std::int64_t span);

/// The word for `pattern` in tables and documents: "unknown", "growing", "settled" or "recent".
const char* PatternName(AgePattern pattern);

/// Sums of one library or function.
struct Row {
  std::string name;
  std::int32_t library = -1;           ///< index into Profile::libraries, -1 for none
  Sums self;                           ///< groups whose innermost frame lies in it
  Sums inclusive;                      ///< groups with any frame in it, each counted once
  std::optional<std::int64_t> oldest;  ///< age among the groups of `inclusive`
};

enum class RowKind { kLibrary, kFunction };

/// Adds up `selected` by library or by function and orders the rows by `sort` (total, count: of
/// `inclusive`, then `self`; size: bytes of a block on average; age: the oldest). Frames of no
/// library go by "[unknown]", calls that were inlined are functions like others; functions of one
/// name in two libraries stay apart.
std::vector<Row> AddUp(const Profile& profile, const Selected& selected, RowKind kind,
                       SortKey sort);

/// Stands for a frame where there is none.
inline constexpr std::uint32_t kNoFrame = std::numeric_limits<std::uint32_t>::max();

/// A call with everything below it.
struct TreeNode {
  std::uint32_t frame = 0;  ///< one of the frames that go by this name, index into Profile::frames;
                            ///< kNoFrame for groups without a stack
  Sums sums;                ///< groups whose stacks come through here
  Sums self;                ///< those that end here
  std::optional<std::int64_t> oldest = {};  ///< age among the groups of `sums`
  std::vector<std::uint32_t> children;      ///< indices into the tree, in the order asked for
};

/// From which end the tree starts.
enum class TreeEnd {
  kOutermost,  ///< from where threads begin down to what allocates
  kInnermost,  ///< from what allocates up to its callers
};

/// The stacks of `selected` put together, the calls below each ordered as AddUp orders rows;
/// element 0 is the root, which has no frame. Groups without a stack are one call of the root's.
std::vector<TreeNode> BuildTree(const Profile& profile, const Selected& selected, TreeEnd end,
                                SortKey sort);

/// Bytes of a block on average; 0 without blocks.
std::uint64_t MeanSize(const Sums& sums);

}  // namespace memleak
