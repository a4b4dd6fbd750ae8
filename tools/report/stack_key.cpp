// Keys by which groups of several reports are matched.
#include "tools/report/stack_key.h"

namespace memleak {

std::string_view LibraryPath(const Profile& profile, const Frame& frame) {
  if (frame.library < 0) return {};
  std::string_view path = profile.libraries[static_cast<std::size_t>(frame.library)].path;
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  return path;
}

std::string StackKey(const Profile& profile, const Group& group) {
  std::string key(1, group.kind == GroupKind::kNative ? 'n' : 'j');
  for (const std::uint32_t index : group.stack) {
    const Frame& frame = profile.frames[index];
    key += '\0';
    key += LibraryPath(profile, frame);
    key += '\0';
    key += frame.function.empty() ? "+" + std::to_string(frame.offset) : frame.function;
  }
  return key;
}

std::string GroupKey(const Profile& profile, const Group& group) {
  return std::to_string(group.size) + StackKey(profile, group);
}

}  // namespace memleak
