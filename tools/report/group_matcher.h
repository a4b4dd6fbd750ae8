// SPDX-License-Identifier: Apache-2.0
// Matches the groups of several reports by kind, block size, and the libraries and functions on
// their stacks, so that neither addresses nor moved files matter. Single-threaded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

/// The figures of one report for a matched group.
struct GroupValue {
  std::uint64_t count = 0;  ///< blocks that are listed
  std::uint64_t total = 0;  ///< their bytes
  std::uint64_t sites = 0;  ///< call sites that are listed: groups of the report
  /// False if the report omits groups and lacks a call site that another one lists: the figures may
  /// be too small.
  bool known = true;
};

/// Groups of one kind, size and stack of functions, which differ only in their call sites.
struct MatchedGroup {
  GroupKind kind = GroupKind::kNative;
  std::size_t stack_id = 0;        ///< equal for all sizes of one stack
  std::vector<GroupValue> values;  ///< one for each report
};

/// The library builds of a report: file names with their build ids.
std::set<std::string> BuildsOf(const Profile& profile);

/// The file name of a library's `path`, without the " (deleted)" of a replaced file.
std::string_view LibraryName(std::string_view path);

class GroupMatcher {
 public:
  /// Groups of other sizes are other groups only if `by_size`. Call sites are compared by their
  /// offsets in the libraries of `builds`, or of all builds if there are none given. In other
  /// libraries the call sites of a function are only counted.
  explicit GroupMatcher(bool by_size, std::optional<std::set<std::string>> builds = std::nullopt)
      : by_size_(by_size), builds_(std::move(builds)) {}

  /// Adds the next report. Returns the index of the matched group of each of its groups; indices
  /// are given in order of first appearance.
  std::vector<std::size_t> Add(const Profile& profile);

  /// All matched groups by index. A call site that no report lists counts as empty.
  std::vector<MatchedGroup> Result() const;

 private:
  using Key = std::u32string;  // of numbers from `names_`

  struct Site {
    std::size_t group = 0;
    std::vector<std::uint32_t> listed;  // by report; more than 1 where sites are only counted
  };

  char32_t NumberOf(const std::string& name);

  bool by_size_;
  std::optional<std::set<std::string>> builds_;
  std::unordered_map<std::string, char32_t> names_;
  std::unordered_map<Key, std::size_t> stack_ids_;
  std::map<std::pair<std::size_t, std::uint64_t>, std::size_t> group_ids_;  // by stack id and size
  std::unordered_map<Key, Site> sites_;
  std::vector<MatchedGroup> groups_;
  std::vector<std::array<bool, 2>> lists_all_;  // by report and GroupKind
};

}  // namespace memleak
