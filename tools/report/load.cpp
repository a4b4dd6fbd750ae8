// SPDX-License-Identifier: Apache-2.0
#include "tools/report/load.h"

#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "tools/base/files.h"
#include "tools/base/progress.h"
#include "tools/report/program_name.h"
#include "tools/report/stacks.h"
#include "tools/symbols/demangle.h"
#include "tools/symbols/jit_names.h"
#include "tools/symbols/symbolizer.h"

namespace memleak {
namespace {

/// A place in the code, before it is resolved.
struct Place {
  std::int32_t library = -1;
  std::uint64_t offset = 0;
  std::string_view function;  // of a Java frame; refers to a key of `functions_`
  bool operator==(const Place& other) const = default;
};

struct PlaceHash {
  std::size_t operator()(const Place& place) const {
    constexpr std::uint64_t kOddConstant = 0x9e3779b97f4a7c15;
    const auto where = static_cast<std::uint32_t>(place.library) * kOddConstant;
    // Each name is stored once, so its address identifies it.
    const auto name = reinterpret_cast<std::uintptr_t>(place.function.data());
    const std::uint64_t mixed = (((where ^ place.offset) * kOddConstant) ^ name) * kOddConstant;
    return mixed ^ (mixed >> 32U);
  }
};

// Finds std::string keys by std::string_view.
struct TextHash : std::hash<std::string_view> {
  using is_transparent = void;
};

/// Builds the profile of a report. Stores each name and each place once.
class ProfileBuilder {
 public:
  explicit ProfileBuilder(Profile* profile) : profile_(profile) {}

  void Add(const ReportGroup& group) {
    Group& added = profile_->groups.emplace_back();
    added.kind = group.java ? GroupKind::kJava : GroupKind::kNative;
    added.size = group.size;
    added.max_size = group.size;
    added.count = group.count;
    added.total = group.total;
    added.ages = group.ages;
    added.cut = !group.java && IsCut(group.frames.size(), profile_->header.backtrace_size);
    added.stack.reserve(group.frames.size());
    for (const ReportFrame& frame : group.frames) {
      const std::int32_t library = group.java || !frame.known ? -1 : LibraryOf(frame.library);
      added.stack.push_back(IndexOf({library, frame.offset, FunctionOf(frame.function)}));
    }
  }

  // A profile's objects and frames are numbered in the order in which they are added.
  void Add(const ProfileObject& object) {
    const auto [known, added] =
        libraries_.try_emplace(object.path + '\n' + object.build_id,
                               static_cast<std::int32_t>(profile_->libraries.size()));
    if (added) {
      Library& library = profile_->libraries.emplace_back();
      library.path = object.path;
      library.build_id = object.build_id;
    }
    objects_.push_back({known->second, object});
  }

  void Add(const ProfileFrame& frame) {
    Place place;
    if (frame.object != 0) {
      const auto& [library, object] = objects_[frame.object - 1];
      // As in a report: from the start of the mapping.
      std::uint64_t mapping = object.bias;
      for (const ProfileObject::Segment& segment : object.segments) {
        constexpr std::uint64_t kPage = 4096;
        if (frame.pc >= segment.begin && frame.pc < segment.end) {
          mapping = segment.begin & ~(kPage - 1);
        }
      }
      place = {library, frame.pc - object.bias, {}};
      mapping_offsets_.emplace(place, frame.pc - mapping);
    } else {
      place = {-1, frame.pc, FunctionOf(JitNameOf(frame.pc))};
    }
    frames_.push_back(IndexOf(place));
  }

  void Add(const ProfileStack& stack) {
    Group& group = profile_->groups.emplace_back();
    group.size = stack.min_size;
    group.max_size = stack.max_size;
    group.count = stack.blocks;
    group.total = stack.bytes;
    group.ages = {stack.youngest, stack.oldest};
    group.own_ages = true;
    group.age_counts = stack.ages;
    group.cut = IsCut(stack.frames.size(), profile_->head->depth);
    group.stack.reserve(stack.frames.size());
    for (const std::uint32_t frame : stack.frames) group.stack.push_back(frames_[frame]);
  }

  /// Resolves the places to frames, and replaces them in the stacks.
  void Resolve(const SymbolOptions& options);

 private:
  // The frames of a place, as indices into Profile::frames.
  struct Span {
    std::uint32_t begin = 0;
    std::uint32_t end = 0;
  };

  // Whether a stack may be deeper than its frames.
  static bool IsCut(std::size_t frames, std::uint64_t depth) {
    return depth != 0 && frames >= depth;
  }

  std::int32_t LibraryOf(std::string_view name) {
    const auto known = libraries_.find(name);
    if (known != libraries_.end()) return known->second;
    const auto index = static_cast<std::int32_t>(profile_->libraries.size());
    profile_->libraries.emplace_back().path = name;
    libraries_.emplace(name, index);
    return index;
  }

  std::string_view FunctionOf(std::string_view name) {
    if (name.empty()) return {};
    const auto known = functions_.find(name);
    return known == functions_.end() ? *functions_.emplace(name).first : *known;
  }

  // The name of code that a just-in-time compiler of the process made.
  std::string JitNameOf(std::uint64_t pc) {
    if (!jit_) {
      struct stat state {};
      stat(RootedPath(profile_->path).c_str(), &state);
      const ProfileHead& head = *profile_->head;
      jit_.emplace(JitProcess{head.pid, head.started, head.program, state.st_uid});
    }
    return jit_->NameOf(pc);
  }

  // The index of a place. Adds a new one.
  std::uint32_t IndexOf(const Place& place) {
    const auto [known, added] =
        indices_.try_emplace(place, static_cast<std::uint32_t>(places_.size()));
    if (added) places_.push_back(place);
    return known->second;
  }

  void AppendFrames(const Place& place, Symbolizer* symbolizer);

  Profile* profile_;
  std::unordered_map<std::string, std::int32_t, TextHash, std::equal_to<>> libraries_;
  std::unordered_set<std::string, TextHash, std::equal_to<>> functions_;
  std::vector<Place> places_;
  std::unordered_map<Place, std::uint32_t, PlaceHash> indices_;  // into places_
  // Of a profile, whose places have the address in the file.
  std::vector<std::pair<std::int32_t, ProfileObject>> objects_;  // with the indices of libraries
  std::vector<std::uint32_t> frames_;                            // indices into places_
  std::unordered_map<Place, std::uint64_t, PlaceHash> mapping_offsets_;
  std::optional<JitNames> jit_;  // read at the first frame that lies in no object
};

// `symbolizer` is that of the place's library; null without one.
void ProfileBuilder::AppendFrames(const Place& place, Symbolizer* symbolizer) {
  Frame plain;
  plain.library = place.library;
  plain.offset = place.offset;
  ResolvedAddress resolved;
  if (symbolizer == nullptr) {
    plain.function = Demangle(std::string(place.function));
  } else if (profile_->head) {
    resolved = symbolizer->ResolveAddress(place.offset);
    plain.offset = mapping_offsets_[place];
  } else {
    resolved = symbolizer->Resolve(place.offset);
  }
  plain.address = resolved.address;
  if (resolved.symbols.empty()) profile_->frames.push_back(plain);
  for (SourceFrame& symbol : resolved.symbols) {
    Frame& frame = profile_->frames.emplace_back(plain);
    frame.function = std::move(symbol.function);
    frame.file = std::move(symbol.file);
    frame.line = symbol.line;
    frame.inlined = &symbol != &resolved.symbols.back();
  }
}

void ProfileBuilder::Resolve(const SymbolOptions& options) {
  ProgressBar bar("reading symbols", options.progress);
  // Sorted by library and offset, so only one library is open at a time.
  std::vector<std::uint32_t> order(places_.size());
  std::iota(order.begin(), order.end(), 0U);
  std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    return std::pair(places_[a].library, places_[a].offset) <
           std::pair(places_[b].library, places_[b].offset);
  });
  std::vector<Span> spans(places_.size());
  for (std::size_t begin = 0, end = 0; begin < order.size(); begin = end) {
    const std::int32_t index = places_[order[begin]].library;
    std::vector<std::uint64_t> offsets;
    for (; end < order.size() && places_[order[end]].library == index; ++end) {
      offsets.push_back(places_[order[end]].offset);
    }
    Library* library = index < 0 ? nullptr : &profile_->libraries[static_cast<std::size_t>(index)];
    std::optional<Symbolizer> symbolizer;
    if (library != nullptr) symbolizer.emplace(library->path, options, offsets, library->build_id);
    for (std::size_t i = begin; i < end; ++i) {
      bar.Update(i, order.size());
      Span& span = spans[order[i]];
      span.begin = static_cast<std::uint32_t>(profile_->frames.size());
      AppendFrames(places_[order[i]], symbolizer ? &*symbolizer : nullptr);
      span.end = static_cast<std::uint32_t>(profile_->frames.size());
    }
    if (library == nullptr) continue;
    LibraryState state = symbolizer->State();
    library->found = state.found;
    library->build_id = std::move(state.build_id);
    library->hint = std::move(state.hint);
    // A profile tells builds apart by their ids.
    const bool by_time = !profile_->head || library->build_id.empty();
    library->newer = by_time && state.changed > profile_->made;
  }
  for (Group& group : profile_->groups) {
    std::vector<std::uint32_t> stack;
    stack.reserve(group.stack.size());
    for (const std::uint32_t place : group.stack) {
      for (std::uint32_t i = spans[place].begin; i < spans[place].end; ++i) stack.push_back(i);
    }
    group.stack = std::move(stack);
  }
}

// Sets `own_ages` of each group. Runs before stacks are resolved. The tracker keeps a record of a
// backtrace in each of its tables, and lists the times of one record for a group: that of the
// group's first block. Other groups may have blocks in that record, and the group may have blocks
// in other records. So a list of the full length is the group's own if the group has one block, or
// if no other group, listed or not, has its backtrace.
void MarkOwnAges(Profile* profile) {
  constexpr std::uint64_t kMaxAges = 30;
  std::map<std::vector<std::uint32_t>, std::size_t> groups;  // by backtrace
  for (const Group& group : profile->groups) {
    if (!group.ages.empty()) ++groups[group.stack];
  }
  const bool whole = profile->ListsAll(GroupKind::kNative);
  for (Group& group : profile->groups) {
    if (group.ages.empty()) continue;
    const bool alone = group.count == 1 || (whole && groups[group.stack] == 1);
    group.own_ages = alone && group.ages.size() == std::min(group.count, kMaxAges);
  }
}

void ReadWhole(const std::string& path, const std::function<void(DamagedLine&&)>& damaged,
               ProfileBuilder& builder, Profile* profile) {
  profile->head.emplace();
  ProfileSink sink;
  sink.object = [&](const ProfileObject& object) { builder.Add(object); };
  sink.frame = [&](const ProfileFrame& frame) { builder.Add(frame); };
  sink.stack = [&](const ProfileStack& stack) { builder.Add(stack); };
  sink.damaged = damaged;
  profile->complete = ReadProfileFile(path, sink, &*profile->head) == ReportEnd::kComplete;
  profile->head->name = ProgramName(*profile->head);
  if (profile->head->written != 0) profile->made = profile->head->written;
}

std::int64_t ModifiedTime(const std::string& path) {
  struct stat state {};
  return stat(RootedPath(path).c_str(), &state) == 0 ? static_cast<std::int64_t>(state.st_mtime)
                                                     : 0;
}

}  // namespace

Profile LoadProfile(const std::string& path, const SymbolOptions& options) {
  const Wrappers wrappers(options.skip);
  Profile profile;
  profile.path = path;
  profile.made = ModifiedTime(path);
  ProfileBuilder builder(&profile);
  const auto damaged = [&](DamagedLine&& line) {
    if (++profile.damaged_lines <= kDamagedLinesKept) profile.damaged.push_back(std::move(line));
  };
  if (IsProfile(path)) {
    ReadWhole(path, damaged, builder, &profile);
    builder.Resolve(options);
    ClearCutOfWhole(&profile);
    FoldWrappers(wrappers, &profile);
    MergeStacks(&profile);
    const Sums sums = profile.Listed(GroupKind::kNative);
    profile.header = {sums.bytes, sums.groups, sums.groups, profile.head->depth};
    return profile;
  }
  ReportSink sink;
  sink.group = [&](const ReportGroup& group) { builder.Add(group); };
  sink.damaged = damaged;
  profile.complete = ReadReportFile(path, sink, &profile.header) == ReportEnd::kComplete;
  MarkOwnAges(&profile);
  builder.Resolve(options);
  ClearCutOfWhole(&profile);
  FoldWrappers(wrappers, &profile);
  return profile;
}

}  // namespace memleak
