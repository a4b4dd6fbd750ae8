// SPDX-License-Identifier: Apache-2.0
// Builds profiles for tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

class ProfileBuilder {
 public:
  /// Adds the library at `path`, or returns its index if it exists.
  std::int32_t Library(const std::string& path, const std::string& build_id = "") {
    std::size_t index = 0;
    std::vector<memleak::Library>& libraries = profile_.libraries;
    while (index < libraries.size() && libraries[index].path != path) ++index;
    if (index == libraries.size()) {
      libraries.emplace_back().path = path;
      libraries.back().build_id = build_id;
    }
    return static_cast<std::int32_t>(index);
  }
  /// Adds a frame in the library at `path`; without `function` it has no symbol.
  ProfileBuilder& In(const std::string& path, std::uint64_t offset,
                     const std::string& function = "") {
    return Add({.library = Library(path), .offset = offset, .function = function, .file = ""});
  }
  ProfileBuilder& Add(Frame frame) {
    stack_.push_back(static_cast<std::uint32_t>(profile_.frames.size()));
    profile_.frames.push_back(std::move(frame));
    return *this;
  }
  /// Adds a group. Its stack consists of the frames since the last group, innermost first.
  ProfileBuilder& Group(std::uint64_t size, std::uint64_t count,
                        GroupKind kind = GroupKind::kNative) {
    profile_.groups.push_back({.kind = kind,
                               .size = size,
                               .count = count,
                               .total = size * count,
                               .ages = {},
                               .stack = std::exchange(stack_, {})});
    return *this;
  }
  /// The profile. Its head counts `unlisted` more groups with `bytes` in total than it lists.
  Profile Done(std::uint64_t unlisted = 0, std::uint64_t bytes = 0) {
    const Sums listed = profile_.Listed(GroupKind::kNative);
    profile_.path = "root/allocations_dump";
    profile_.complete = true;
    profile_.header = {.total_bytes = listed.bytes + bytes,
                       .groups = listed.groups + unlisted,
                       .listed = listed.groups,
                       .backtrace_size = 10};
    return profile_;
  }

 private:
  Profile profile_;
  std::vector<std::uint32_t> stack_;
};

}  // namespace memleak
