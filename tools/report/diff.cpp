// Matching by symbolized stack, and judgement of what a cut list allows to say.
#include "tools/report/diff.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "tools/report/stack_key.h"

namespace memleak {
namespace {

constexpr std::uint64_t kUnbounded = std::numeric_limits<std::uint64_t>::max();

/// How many bytes groups that a report does not list may hold in it all the same.
struct Hidden {
  std::uint64_t each = kUnbounded;
  std::uint64_t together = kUnbounded;
};

// Nothing when the report lists all.
std::optional<Hidden> Threshold(const Profile& profile, GroupKind kind) {
  // A line that could not be read may have been any group's.
  if (profile.damaged_lines > 0) return Hidden{};
  const bool native = kind == GroupKind::kNative;
  const Sums unlisted = profile.Unlisted();
  const bool cut = native && (unlisted.groups > 0 || unlisted.bytes > 0);
  if (!cut && profile.complete) return std::nullopt;
  Hidden hidden;
  // No head counts Java-native groups.
  if (native) hidden.together = unlisted.bytes;
  // A line that was to be there and is not may have stood anywhere in the list.
  const bool lost = native && profile.Listed(kind).groups < profile.header.listed;
  if (!lost) {
    // Largest first: what is not listed is no larger than the last that is.
    for (const Group& group : profile.groups) {
      if (group.kind == kind) hidden.each = std::min(hidden.each, group.total);
    }
  }
  hidden.each = std::min(hidden.each, hidden.together);
  return hidden;
}

// By GroupKind.
using Thresholds = std::array<std::optional<Hidden>, 2>;

Thresholds ThresholdsOf(const Profile& profile) {
  return {Threshold(profile, GroupKind::kNative), Threshold(profile, GroupKind::kJava)};
}

std::uint64_t MultiplySaturated(std::uint64_t a, std::uint64_t b) {
  return b != 0 && a > kUnbounded / b ? kUnbounded : a * b;
}

using BuildIds = std::unordered_map<std::string, std::set<std::string_view>>;

// The build ids of the libraries, by the names that frames are compared by. A process may have
// several libraries of one name.
BuildIds BuildIdsOf(const Profile& profile) {
  BuildIds ids;
  for (const Library& library : profile.libraries)
    ids[Comparable(LibraryName(library.path))].insert(library.build_id);
  return ids;
}

/// How many groups at one call site each report lists: one or none, unless the site could not be
/// told from others.
struct Site {
  std::size_t row = 0;
  std::uint64_t before = 0;
  std::uint64_t after = 0;
};

/// Puts the groups of two reports into one list.
class Comparison {
 public:
  Comparison(const Profile& before, const Profile& after)
      : before_(before),
        after_(after),
        builds_before_(BuildIdsOf(before)),
        builds_after_(BuildIdsOf(after)) {}

  Difference Run() {
    result_.merged.libraries = after_.libraries;
    result_.merged.frames = after_.frames;
    AddReport(after_, &GroupChange::after, &Site::after);
    AddReport(before_, &GroupChange::before, &Site::before);
    for (const auto& [key, site] : sites_) {
      GroupChange& change = result_.changes[site.row];
      change.before.lacks += SubtractSaturated(site.after, site.before);
      change.after.lacks += SubtractSaturated(site.before, site.after);
    }
    result_.stacks = stack_ids_.size();
    return std::move(result_);
  }

 private:
  void AddReport(const Profile& profile, Side GroupChange::*side, std::uint64_t Site::*listed);
  bool ComparesPlaces(const Library& library) const;
  std::vector<std::uint32_t> NumberPlaces(const Profile& profile,
                                          const std::vector<std::string>& keys);
  std::vector<std::uint32_t> Adopt(const std::vector<std::uint32_t>& stack);
  std::int32_t AdoptLibrary(std::int32_t index);

  const Profile& before_;
  const Profile& after_;
  BuildIds builds_before_;
  BuildIds builds_after_;
  Difference result_;
  std::unordered_map<std::string, std::size_t> stack_ids_;
  std::unordered_map<std::string, std::size_t> rows_;
  std::unordered_map<std::string, std::uint32_t> places_;
  std::unordered_map<std::string, Site> sites_;
  std::unordered_map<std::uint32_t, std::uint32_t> adopted_frames_;
  std::unordered_map<std::int32_t, std::int32_t> adopted_libraries_;
};

// Whether equal offsets are one place in both reports, and others are others: not in a library that
// was built anew meanwhile.
bool Comparison::ComparesPlaces(const Library& library) const {
  const std::string name = Comparable(LibraryName(library.path));
  const auto before = builds_before_.find(name);
  const auto after = builds_after_.find(name);
  if (before == builds_before_.end() || after == builds_after_.end()) return false;
  return std::any_of(before->second.begin(), before->second.end(),
                     [&](std::string_view id) { return after->second.count(id) != 0; });
}

// A number for each frame, the same in both reports for one place in one function; for all places
// in the function where they cannot be compared.
std::vector<std::uint32_t> Comparison::NumberPlaces(const Profile& profile,
                                                    const std::vector<std::string>& keys) {
  std::vector<std::uint32_t> numbers;
  numbers.reserve(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const Frame& frame = profile.frames[i];
    std::string key = keys[i];
    // In no library at all nothing tells places apart.
    if (frame.library >= 0) {
      const Library& library = profile.libraries[static_cast<std::size_t>(frame.library)];
      if (ComparesPlaces(library)) key += library.build_id + "+" + std::to_string(frame.offset);
    }
    const auto fresh = static_cast<std::uint32_t>(places_.size());
    numbers.push_back(places_.try_emplace(std::move(key), fresh).first->second);
  }
  return numbers;
}

void Comparison::AddReport(const Profile& profile, Side GroupChange::*side,
                           std::uint64_t Site::*listed) {
  const std::vector<std::string> keys = FrameKeys(profile);
  const std::vector<std::uint32_t> places = NumberPlaces(profile, keys);
  const bool later = &profile == &after_;
  for (const Group& group : profile.groups) {
    std::string key = group.kind == GroupKind::kNative ? "n" : "j";
    for (const std::uint32_t frame : group.stack) key += keys[frame];
    const std::size_t id = stack_ids_.try_emplace(key, stack_ids_.size()).first->second;
    const std::string row = std::to_string(id) + "/" + std::to_string(group.size);
    const auto [known, added] = rows_.try_emplace(row, result_.changes.size());
    if (added) {
      result_.changes.emplace_back().stack_id = id;
      Group& fresh = result_.merged.groups.emplace_back();
      fresh.kind = group.kind;
      fresh.size = group.size;
      fresh.stack = later ? group.stack : Adopt(group.stack);
    }
    Side& sums = result_.changes[known->second].*side;
    sums.count = AddSaturated(sums.count, group.count);
    sums.total = AddSaturated(sums.total, group.total);
    ++sums.parts;
    std::string site = row;
    for (const std::uint32_t frame : group.stack) {
      site.append(reinterpret_cast<const char*>(&places[frame]), sizeof places[frame]);
    }
    Site& counted = sites_[site];
    counted.row = known->second;
    ++(counted.*listed);
    if (!later) continue;
    Group& merged = result_.merged.groups[known->second];
    merged.count = sums.count;
    merged.total = sums.total;
    merged.ages.insert(merged.ages.end(), group.ages.begin(), group.ages.end());
    merged.own_ages = group.own_ages && (sums.parts == 1 || merged.own_ages);
  }
}

// The frames of a stack that only the earlier report has, taken over on first use.
std::vector<std::uint32_t> Comparison::Adopt(const std::vector<std::uint32_t>& stack) {
  std::vector<std::uint32_t> taken;
  taken.reserve(stack.size());
  for (const std::uint32_t index : stack) {
    const auto [known, added] = adopted_frames_.try_emplace(
        index, static_cast<std::uint32_t>(result_.merged.frames.size()));
    if (added) {
      Frame frame = before_.frames[index];
      frame.library = AdoptLibrary(frame.library);
      result_.merged.frames.push_back(std::move(frame));
    }
    taken.push_back(known->second);
  }
  return taken;
}

std::int32_t Comparison::AdoptLibrary(std::int32_t index) {
  if (index < 0) return index;
  const auto known = adopted_libraries_.find(index);
  if (known != adopted_libraries_.end()) return known->second;
  const Library& library = before_.libraries[static_cast<std::size_t>(index)];
  std::vector<Library>& all = result_.merged.libraries;
  const auto same = std::find_if(all.begin(), all.end(), [&](const Library& other) {
    return other.path == library.path && other.build_id == library.build_id;
  });
  const auto position = static_cast<std::int32_t>(same - all.begin());
  if (same == all.end()) all.push_back(library);
  adopted_libraries_[index] = position;
  return position;
}

// Between which bounds what a side holds must lie: bytes, or blocks of a group without bytes.
struct Range {
  std::uint64_t least = 0;
  std::uint64_t most = 0;
};

// A side may have the call sites that it lacks below the end of its list.
Range RangeOf(const Side& side, std::uint64_t size, const std::optional<Hidden>& hidden) {
  const std::uint64_t listed = size == 0 ? side.count : side.total;
  if (!hidden.has_value() || side.lacks == 0) return {listed, listed};
  if (size == 0) return {listed, kUnbounded};
  const auto whole_blocks = [size](std::uint64_t bytes) {
    return bytes == kUnbounded ? bytes : bytes - bytes % size;
  };
  const std::uint64_t sites = MultiplySaturated(whole_blocks(hidden->each), side.lacks);
  return {listed, AddSaturated(listed, std::min(sites, whole_blocks(hidden->together)))};
}

void Judge(const Group& group, const Thresholds& before_cut, const Thresholds& after_cut,
           GroupChange* judged) {
  const auto kind = static_cast<std::size_t>(group.kind);
  const Range before = RangeOf(judged->before, group.size, before_cut[kind]);
  const Range after = RangeOf(judged->after, group.size, after_cut[kind]);
  judged->before.most = group.size == 0 ? 0 : before.most;
  judged->after.most = group.size == 0 ? 0 : after.most;
  if (after.least > before.most) {
    const bool there_before = judged->before.parts > 0 || before.most > 0;
    judged->change = there_before ? Change::kGrew : Change::kNew;
  } else if (before.least > after.most) {
    const bool still_there = judged->after.parts > 0 || after.most > 0;
    judged->change = still_there ? Change::kShrank : Change::kGone;
  } else {
    const bool sure = before.least == before.most && after.least == after.most;
    judged->change = sure ? Change::kSame : Change::kUnknown;
  }
}

}  // namespace

const char* ChangeName(Change change) {
  switch (change) {
    case Change::kGrew:
      return "grew";
    case Change::kShrank:
      return "shrank";
    case Change::kNew:
      return "new";
    case Change::kGone:
      return "gone";
    case Change::kSame:
      return "same";
    case Change::kUnknown:
      break;
  }
  return "unknown";
}

Difference Compare(const Profile& before, const Profile& after) {
  Difference difference = Comparison(before, after).Run();
  const Thresholds before_cut = ThresholdsOf(before);
  const Thresholds after_cut = ThresholdsOf(after);
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    Judge(difference.merged.groups[i], before_cut, after_cut, &difference.changes[i]);
  }
  return difference;
}

std::int64_t Growth(std::uint64_t before, std::uint64_t after) {
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  const bool grew = after >= before;
  const auto step =
      static_cast<std::int64_t>(std::min(grew ? after - before : before - after, kMost));
  return grew ? step : -step;
}

std::int64_t SureGrowth(const GroupChange& change) {
  const Side& before = change.before;
  const Side& after = change.after;
  if (after.total > before.most) return Growth(before.most, after.total);
  if (before.total > after.most) return Growth(before.total, after.most);
  return 0;
}

}  // namespace memleak
