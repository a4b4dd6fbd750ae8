// SPDX-License-Identifier: Apache-2.0
// A symbolized report: groups, and frames with functions, files and lines. Filled by load.h, used
// by all views and exports. Plain values; single-threaded.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/profile_parser.h"
#include "tools/report/report_parser.h"

namespace memleak {

/// A file or mapping that frames lie in.
struct Library {
  std::string path;      ///< the mapping's name as in the report; may be empty
  std::string build_id;  ///< lower-case hexadecimal; empty when unknown
  bool found = false;    ///< its file or its debug file was read
  std::string hint;      ///< the file that would provide (more) symbols; empty if none is missing
  bool newer = false;    ///< its file is newer than the report: it may be another build
};

/// One symbolized frame. Inlined calls are separate frames, innermost first; `inlined` is set on
/// all but the outermost frame of an address.
struct Frame {
  std::int32_t library = -1;  ///< index into Profile::libraries; -1 for none ("[unknow]", Java)
  std::uint64_t offset = 0;   ///< as in the report: from the start of the mapping
  std::uint64_t address = 0;  ///< in the file, based on p_vaddr; 0 unknown
  std::string function;       ///< demangled; empty unknown
  std::string file;           ///< source file; empty unknown
  std::uint32_t line = 0;     ///< 0 unknown
  bool inlined = false;
};

enum class GroupKind { kNative, kJava };

/// Live blocks with one stack: of one size in a report, of all sizes in a profile.
struct Group {
  GroupKind kind = GroupKind::kNative;
  std::uint64_t size = 0;   ///< bytes of the smallest block
  std::uint64_t count = 0;  ///< number of blocks
  std::uint64_t total = 0;  ///< bytes of all
  /// Seconds. In a report at most 30: see `own_ages`. In a profile the lowest and the highest.
  std::vector<std::int64_t> ages = {};
  std::vector<std::uint32_t> stack = {};  ///< indices into Profile::frames, innermost first
  /// All `ages` are of blocks of this group, and a report cannot list more. Otherwise some may be
  /// of other blocks with the same stack, and some may be missing.
  bool own_ages = false;
  std::uint64_t max_size = 0;  ///< bytes of the largest block
  /// In a profile: blocks, by index in ProfileHead::age_bounds. Empty in a report.
  std::vector<std::uint64_t> age_counts = {};
  /// Outer frames are missing: the stack was deeper than the maximum number of frames.
  bool cut = false;

  /// Whether the group has all blocks of its stack, and its ages are those of all of them.
  bool IsExact() const { return !age_counts.empty(); }
  /// Adds the blocks of `other`, which has the same stack of functions.
  void Merge(const Group& other);
};

/// `a` plus `b`, or the largest number on overflow: a damaged report may have any figures.
constexpr std::uint64_t AddSaturated(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t sum = a + b;
  return sum < a ? std::numeric_limits<std::uint64_t>::max() : sum;
}

/// `a` minus `b`, or 0 if `b` is larger.
constexpr std::uint64_t SubtractSaturated(std::uint64_t a, std::uint64_t b) {
  return a > b ? a - b : 0;
}

/// Sums over groups. They saturate.
struct Sums {
  std::uint64_t bytes = 0;
  std::uint64_t groups = 0;
  std::uint64_t blocks = 0;

  void Add(const Sums& other) {
    bytes = AddSaturated(bytes, other.bytes);
    groups = AddSaturated(groups, other.groups);
    blocks = AddSaturated(blocks, other.blocks);
  }
  void Add(const Group& group) { Add(Sums{group.total, 1, group.count}); }
  void Subtract(const Sums& other) {
    bytes = SubtractSaturated(bytes, other.bytes);
    groups = SubtractSaturated(groups, other.groups);
    blocks = SubtractSaturated(blocks, other.blocks);
  }
  bool operator==(const Sums&) const = default;
};

/// Further damaged lines are only counted.
inline constexpr std::size_t kDamagedLinesKept = 1000;

/// One report or profile, symbolized. Equal frames are stored once. Wrappers of allocators at the
/// inner end of stacks are left out.
struct Profile {
  std::string path;                  ///< of the report, or of its JSON document
  std::int64_t made = 0;             ///< modification time, seconds since the epoch
  std::optional<ProfileHead> head;   ///< of a profile; a report has none
  ReportHeader header;               ///< counts all native groups, listed or not
  bool complete = false;             ///< it has its end mark
  std::vector<DamagedLine> damaged;  ///< the first of them
  std::uint64_t damaged_lines = 0;   ///< their number
  std::vector<Library> libraries;
  std::vector<Frame> frames;
  std::vector<Group> groups;  ///< as in the report, native ones first

  /// The library of a frame; null for none.
  const Library* LibraryOf(const Frame& frame) const {
    return frame.library < 0 ? nullptr : &libraries[static_cast<std::size_t>(frame.library)];
  }

  /// Sums of the listed groups of one kind.
  Sums Listed(GroupKind kind) const;

  /// Whether it is complete and undamaged.
  bool IsWhole() const { return complete && damaged_lines == 0; }

  /// Whether it is complete and has no groups.
  bool IsEmpty() const { return complete && header.groups == 0 && groups.empty(); }

  /// Whether the report certainly lists all groups of `kind`.
  bool ListsAll(GroupKind kind) const;

  /// Native bytes and groups that the head counts and the report does not list; `blocks` is 0.
  Sums Unlisted() const;
};

/// The displayed name of a frame: its function, else "library+0xaddress" with the library's file
/// name and the address in the file, or the offset in the report if that is unknown, else
/// "[unknown]".
std::string FrameName(const Profile& profile, const Frame& frame);

}  // namespace memleak
