// SPDX-License-Identifier: Apache-2.0
#include "tools/report/stacks.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "protocol/protocol.h"
#include "tools/base/files.h"

namespace memleak {
namespace {

struct StackHash {
  std::size_t operator()(const std::vector<std::uint32_t>& stack) const {
    std::size_t hash = stack.size();
    for (const std::uint32_t frame : stack) hash = (hash ^ frame) * 0x9e3779b97f4a7c15U;
    return hash ^ (hash >> 32U);
  }
};

}  // namespace

void FoldWrappers(const Wrappers& wrappers, Profile* profile) {
  std::vector<bool> is_wrapper;
  is_wrapper.reserve(profile->frames.size());
  for (const Frame& frame : profile->frames) {
    // The loader has its own operator new. It is on the stack if the program brings another one.
    const Library* const library = profile->LibraryOf(frame);
    const bool own = library != nullptr && LastPart(library->path) == protocol::kPreloadLibrary;
    is_wrapper.push_back(own || wrappers.Contains(frame.function));
  }
  for (Group& group : profile->groups) {
    const auto caller = std::find_if(group.stack.begin(), group.stack.end(),
                                     [&](std::uint32_t frame) { return !is_wrapper[frame]; });
    if (caller != group.stack.end()) group.stack.erase(group.stack.begin(), caller);
  }
}

void ClearCutOfWhole(Profile* profile) {
  // Of glibc and bionic. Their callers may lack a symbol.
  constexpr std::string_view kStarts[] = {"_start",
                                          "__libc_start_main",
                                          "__libc_start_main_impl",
                                          "__libc_start_call_main",
                                          "clone",
                                          "clone3",
                                          "__clone",
                                          "__clone3",
                                          "__GI_clone",
                                          "__GI___clone3",
                                          "start_thread",
                                          "__libc_init",
                                          "_start_main",
                                          "__start_thread",
                                          "__pthread_start"};
  constexpr std::size_t kOutermost = 3;
  std::vector<bool> starts;
  for (const Frame& frame : profile->frames) {
    const std::string_view name(
        frame.function.data(), std::min(frame.function.find_first_of("(@"), frame.function.size()));
    starts.push_back(std::ranges::find(kStarts, name) != std::end(kStarts));
  }
  for (Group& group : profile->groups) {
    const std::size_t checked = std::min(kOutermost, group.stack.size());
    group.cut = group.cut &&
                std::none_of(group.stack.end() - static_cast<std::ptrdiff_t>(checked),
                             group.stack.end(), [&](std::uint32_t frame) { return starts[frame]; });
  }
}

void MergeStacks(Profile* profile) {
  std::unordered_map<std::vector<std::uint32_t>, std::size_t, StackHash> known;
  std::vector<Group> merged;
  for (Group& group : profile->groups) {
    const auto [at, added] = known.try_emplace(group.stack, merged.size());
    if (added) {
      merged.push_back(std::move(group));
    } else {
      merged[at->second].Merge(group);
    }
  }
  std::ranges::stable_sort(merged, std::greater(), &Group::total);
  profile->groups = std::move(merged);
}

}  // namespace memleak
