// Profiles put together by hand, for tests of what reads them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

/// A frame of library `library`, -1 for none.
inline Frame FrameOf(std::int32_t library, std::uint64_t offset, const std::string& function = "",
                     const std::string& file = "", std::uint32_t line = 0) {
  Frame frame;
  frame.library = library;
  frame.offset = offset;
  frame.function = function;
  frame.file = file;
  frame.line = line;
  return frame;
}

class ProfileBuilder {
 public:
  /// A frame of the library at `path`; without `function` it has no symbol.
  ProfileBuilder& In(const std::string& path, std::uint64_t offset,
                     const std::string& function = "", const std::string& build_id = "") {
    std::size_t index = 0;
    std::vector<Library>& libraries = profile_.libraries;
    while (index < libraries.size() && libraries[index].path != path) ++index;
    if (index == libraries.size()) {
      libraries.emplace_back().path = path;
      libraries.back().build_id = build_id;
    }
    return Add(FrameOf(static_cast<std::int32_t>(index), offset, function));
  }
  ProfileBuilder& Add(Frame frame) {
    stack_.push_back(static_cast<std::uint32_t>(profile_.frames.size()));
    profile_.frames.push_back(std::move(frame));
    return *this;
  }
  /// Ends a group; its stack are the frames named since the last one, innermost first.
  ProfileBuilder& Group(std::uint64_t size, std::uint64_t count,
                        GroupKind kind = GroupKind::kNative) {
    profile_.groups.push_back({.kind = kind,
                               .size = size,
                               .count = count,
                               .total = size * count,
                               .ages = {},
                               .stack = std::move(stack_)});
    stack_.clear();
    return *this;
  }
  /// The profile, whose head counts `unlisted` groups of together `bytes` more than are listed.
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
