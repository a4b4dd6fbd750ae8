// Keys by which frames, groups and call sites of several reports are matched.
#include "tools/report/stack_key.h"

#include "tools/base/names.h"

namespace memleak {
namespace {

std::string FrameKey(const Profile& profile, const Frame& frame) {
  std::string key;
  if (frame.library >= 0) {
    const Library& library = profile.libraries[static_cast<std::size_t>(frame.library)];
    const bool by_build = frame.function.empty() && !library.build_id.empty();
    key = by_build ? library.build_id : LibraryName(library.path);
  }
  // Signs that no name in a report can hold keep different frames from reading the same.
  key += '\0';
  key += frame.function.empty() ? "+" + std::to_string(frame.offset) : frame.function;
  key += '\n';
  return Comparable(key);
}

}  // namespace

std::string Comparable(std::string_view name) {
  constexpr std::string_view kReplacement = "\xef\xbf\xbd";
  std::string valid = ValidUtf8(name);
  for (std::size_t at = valid.find(kReplacement); at != std::string::npos;
       at = valid.find(kReplacement, at)) {
    at += kReplacement.size();
    while (valid.compare(at, kReplacement.size(), kReplacement) == 0) {
      valid.erase(at, kReplacement.size());
    }
  }
  return valid;
}

std::string_view LibraryName(std::string_view path) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  return path.substr(path.rfind('/') + 1);
}

std::vector<std::string> FrameKeys(const Profile& profile) {
  std::vector<std::string> keys;
  keys.reserve(profile.frames.size());
  for (const Frame& frame : profile.frames) keys.push_back(FrameKey(profile, frame));
  return keys;
}

std::string GroupKey(const Group& group, const std::vector<std::string>& frame_keys) {
  std::string key = std::to_string(group.size) + (group.kind == GroupKind::kNative ? "n" : "j");
  for (const std::uint32_t index : group.stack) key += frame_keys[index];
  return key;
}

std::string SiteKey(const Profile& profile, const Group& group) {
  std::string key;
  for (const std::uint32_t index : group.stack) {
    const Frame& frame = profile.frames[index];
    // Outside of a library there is no place that stays the same.
    if (frame.library >= 0) {
      // Of several libraries with one name.
      key += profile.libraries[static_cast<std::size_t>(frame.library)].build_id;
      key += "+" + std::to_string(frame.offset);
    }
    key += '\n';
  }
  return key;
}

}  // namespace memleak
