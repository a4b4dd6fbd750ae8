// SPDX-License-Identifier: Apache-2.0
#include "tools/report/group_matcher.h"

#include <algorithm>

#include "tools/base/names.h"

namespace memleak {
namespace {

// A file name with a build id. Names are compared as valid UTF-8, as JSON documents have them.
std::string BuildOf(const Library& library) {
  return ValidUtf8(LibraryName(library.path)) + "\n" + library.build_id;
}

// What identifies a function in every report. A frame without a function is identified by its
// offset, in the build if that is known. No name contains the separators.
std::string FunctionKey(const Profile& profile, const Frame& frame) {
  std::string key;
  if (const Library* library = profile.LibraryOf(frame)) {
    const bool by_build = frame.function.empty() && !library->build_id.empty();
    key = by_build ? library->build_id : LibraryName(library->path);
  }
  key += '\0';
  key += frame.function.empty() ? "+" + std::to_string(frame.offset) : frame.function;
  return ValidUtf8(key);
}

}  // namespace

std::string_view LibraryName(std::string_view path) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  return path.substr(path.rfind('/') + 1);
}

std::set<std::string> BuildsOf(const Profile& profile) {
  std::set<std::string> builds;
  for (const Library& library : profile.libraries) builds.insert(BuildOf(library));
  return builds;
}

char32_t GroupMatcher::NumberOf(const std::string& name) {
  return names_.try_emplace(name, static_cast<char32_t>(names_.size())).first->second;
}

std::vector<std::size_t> GroupMatcher::Add(const Profile& profile) {
  const std::size_t report = lists_all_.size();
  lists_all_.push_back({profile.ListsAll(GroupKind::kNative), profile.ListsAll(GroupKind::kJava)});
  std::vector<std::string> builds;
  for (const Library& library : profile.libraries) {
    builds.push_back(BuildOf(library));
    if (builds_ && builds_->count(builds.back()) == 0) builds.back().clear();
  }
  std::vector<char32_t> functions;
  std::vector<char32_t> places;
  for (const Frame& frame : profile.frames) {
    std::string key = FunctionKey(profile, frame);
    functions.push_back(NumberOf(key));
    const std::string& build =
        frame.library < 0 ? "" : builds[static_cast<std::size_t>(frame.library)];
    if (!build.empty()) key += "\n" + build + "+" + std::to_string(frame.offset);
    places.push_back(NumberOf(key));
  }
  std::vector<std::size_t> indices;
  indices.reserve(profile.groups.size());
  for (const Group& group : profile.groups) {
    Key stack(1, static_cast<char32_t>(group.kind));
    for (const std::uint32_t frame : group.stack) stack += functions[frame];
    const std::size_t stack_id =
        stack_ids_.try_emplace(std::move(stack), stack_ids_.size()).first->second;
    const auto [known, added] =
        group_ids_.try_emplace(std::pair(stack_id, by_size_ ? group.size : 0), groups_.size());
    const std::size_t index = known->second;
    if (added) groups_.push_back({group.kind, stack_id, {}});
    indices.push_back(index);
    MatchedGroup& matched = groups_[index];
    matched.values.resize(report + 1);
    GroupValue& value = matched.values[report];
    value.count = AddSaturated(value.count, group.count);
    value.total = AddSaturated(value.total, group.total);
    ++value.sites;
    Key key(1, static_cast<char32_t>(index));
    for (const std::uint32_t frame : group.stack) key += places[frame];
    Site& site = sites_[std::move(key)];
    site.group = index;
    site.listed.resize(report + 1);
    ++site.listed[report];
  }
  return indices;
}

std::vector<MatchedGroup> GroupMatcher::Result() const {
  const std::size_t reports = lists_all_.size();
  std::vector<MatchedGroup> result = groups_;
  for (MatchedGroup& group : result) group.values.resize(reports);
  for (const auto& [key, site] : sites_) {
    MatchedGroup& group = result[site.group];
    const std::uint32_t most = *std::max_element(site.listed.begin(), site.listed.end());
    for (std::size_t i = 0; i < reports; ++i) {
      const bool missing = i >= site.listed.size() || site.listed[i] < most;
      const bool lists_all = lists_all_[i][static_cast<std::size_t>(group.kind)];
      if (missing && !lists_all) group.values[i].known = false;
    }
  }
  return result;
}

}  // namespace memleak
