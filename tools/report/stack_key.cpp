// Keys by which groups of several reports are matched.
#include "tools/report/stack_key.h"

namespace memleak {

std::string StackKey(const Profile& profile, const Group& group) {
  std::string key(1, group.kind == GroupKind::kNative ? 'n' : 'j');
  for (const std::uint32_t index : group.stack) {
    key += '\0';
    key += FrameName(profile, profile.frames[index]);
  }
  return key;
}

std::string GroupKey(const Profile& profile, const Group& group) {
  return std::to_string(group.size) + StackKey(profile, group);
}

}  // namespace memleak
