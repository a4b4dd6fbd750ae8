// What is said to be certain of reports, compared with the whole heaps that they were made of:
// random ones, through the cuts, gaps and damage that a report may have, and as documents.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <tuple>

#include "tests/temporary_directory.h"
#include "tests/tools/profile_builder.h"
#include "tools/export/json.h"
#include "tools/export/json_input.h"
#include "tools/report/diff.h"
#include "tools/report/trend.h"

namespace memleak {
namespace {

/// A call site: kind, size of a block, library and place, a digit.
using Site = std::tuple<GroupKind, std::uint64_t, std::size_t, unsigned>;
using Heap = std::map<Site, std::uint64_t>;  // blocks by site

// Two libraries of one name, which no document can hold, and one without symbols.
const std::vector<std::string> kPaths = {"/a/\xe2\x82twin.so", "/b/\xe2\x82twin.so", "/plain.so"};

// The name of the frame at a place: two functions, or none.
std::string NameOf(std::size_t library, unsigned place) {
  return library == 2 ? "plain.so+0x" + std::to_string(place) : place < 5 ? "f" : "g";
}

std::string RowName(GroupKind kind, std::uint64_t size, const std::string& frame) {
  return (kind == GroupKind::kJava ? "java " : "") + std::to_string(size) + frame;
}

using Random = std::mt19937;
unsigned Below(unsigned limit, Random& random) {
  return static_cast<unsigned>(random() % limit);
}

struct Written {
  Heap heap;
  Heap listed;
  Profile profile;
};

// A heap some time after `earlier`.
Heap Next(const Heap& earlier, Random& random) {
  Heap heap;
  for (const auto& [site, count] : earlier) {
    const unsigned fate = Below(6, random);
    if (fate != 0) heap[site] = fate < 3 ? count : 1 + Below(20, random);
  }
  for (unsigned i = Below(12, random) + 3; i > 0; --i) {
    const GroupKind kind = Below(4, random) == 0 ? GroupKind::kJava : GroupKind::kNative;
    heap[{kind, 8 + 8 * Below(3, random), Below(3, random), Below(10, random)}] =
        1 + Below(20, random);
  }
  return heap;
}

Written Write(const Heap& heap, Random& random) {
  Written written{heap, {}, {}};
  std::vector<std::pair<Site, std::uint64_t>> sites(heap.begin(), heap.end());
  std::sort(sites.begin(), sites.end(), [](const auto& a, const auto& b) {
    const auto bytes = [](const auto& of) { return std::get<1>(of.first) * of.second; };
    return std::pair(std::get<0>(a.first), bytes(b)) < std::pair(std::get<0>(b.first), bytes(a));
  });
  const unsigned longest = Below(2, random) == 0 ? 1000 : Below(10, random);
  const bool damaged = Below(8, random) == 0;
  const std::size_t torn = Below(6, random) == 0 ? Below(20, random) : sites.size();
  ReportHeader header;
  ProfileBuilder builder;
  for (std::size_t i = 0; i < sites.size(); ++i) {
    const auto& [kind, size, library, place] = sites[i].first;
    const bool native = kind == GroupKind::kNative;
    if (native) header.total_bytes += size * sites[i].second;
    if (native && ++header.groups > longest) continue;
    if (native) ++header.listed;
    // The tracker leaves native groups out that have lost their frames.
    if (i >= torn || ((native || damaged) && Below(12, random) == 0)) continue;
    builder.In(kPaths[library], place, library == 2 ? "" : NameOf(library, place))
        .Group(size, sites[i].second, kind);
    written.listed.insert(sites[i]);
  }
  Profile& profile = written.profile;
  profile = builder.Done();
  profile.header = header;
  profile.complete = torn >= sites.size();
  profile.damaged_lines = damaged ? 1 : 0;
  for (const std::string& path : kPaths) profile.libraries.emplace_back().path = path;
  for (Library& library : profile.libraries) library.build_id = library.path.substr(1, 1);
  if (Below(8, random) != 0) return written;
  const TemporaryDirectory directory;
  std::ostringstream text;
  WriteJson(ToJson(profile), text);
  profile = LoadDocument(directory.Write("report.json", text.str()));
  return written;
}

// The bytes that the heaps hold of each row at the sites that any report lists.
std::map<std::string, std::vector<std::uint64_t>> TruthOf(const std::vector<Written>& reports) {
  std::map<std::string, std::vector<std::uint64_t>> truth;
  Heap listed;
  for (const Written& report : reports) listed.insert(report.listed.begin(), report.listed.end());
  for (const auto& [site, ignored] : listed) {
    const auto& [kind, size, library, place] = site;
    auto& row = truth[RowName(kind, size, NameOf(library, place))];
    row.resize(reports.size());
    for (std::size_t i = 0; i < reports.size(); ++i) {
      const auto held = reports[i].heap.find(site);
      if (held != reports[i].heap.end()) row[i] += size * held->second;
    }
  }
  return truth;
}

// Whether a claim is true of what the heaps hold.
bool Holds(const GroupChange& change, std::uint64_t before, std::uint64_t after) {
  const std::map<Change, bool> holds = {
      {Change::kNew, before == 0 && after > 0}, {Change::kGone, before > 0 && after == 0},
      {Change::kGrew, after > before},          {Change::kShrank, after < before},
      {Change::kSame, after == before},         {Change::kUnknown, true}};
  const std::int64_t sure = SureGrowth(change);
  const std::int64_t growth = Growth(before, after);
  return holds.at(change.change) && change.before.total <= before && before <= change.before.most &&
         change.after.total <= after && after <= change.after.most &&
         (sure == 0 || (sure > 0 ? growth >= sure : growth <= sure));
}

TEST(Certainty, HoldsOfTheWholeHeaps) {
  std::map<Change, int> seen;
  int known_of_cut_lists = 0;
  for (unsigned seed = 1; seed <= 2000 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    const Heap first = Next({}, random);
    const std::vector<Written> reports = {Write(first, random), Write(Next(first, random), random)};
    const auto truth = TruthOf(reports);
    const Difference difference = Compare(reports[0].profile, reports[1].profile);
    const Profile& merged = difference.merged;
    for (std::size_t i = 0; i < difference.changes.size(); ++i) {
      const Group& group = merged.groups[i];
      const std::string row =
          RowName(group.kind, group.size, FrameName(merged, merged.frames[group.stack[0]]));
      const GroupChange& change = difference.changes[i];
      EXPECT_TRUE(Holds(change, truth.at(row)[0], truth.at(row)[1])) << row;
      const bool whole =
          reports[0].profile.ListsAll(group.kind) && reports[1].profile.ListsAll(group.kind);
      EXPECT_FALSE(whole && change.change == Change::kUnknown) << row;
      ++seen[change.change];
    }
    Trends trends;
    for (const Written& report : reports) trends.Add(trends.Reports() == 0 ? 0 : 1, report.profile);
    for (const GroupTrend& group : trends.Result()) {
      const std::string row = RowName(group.kind, group.size, group.stack[0]);
      for (std::size_t i = 0; i < reports.size(); ++i) {
        const std::uint64_t held = truth.at(row)[i];
        EXPECT_EQ(group.values[i].value_or(GroupValue{0, held}).total, held) << row;
        const bool whole = reports[i].profile.ListsAll(group.kind);
        EXPECT_TRUE(!whole || group.values[i]) << row;
        if (!whole && group.values[i]) ++known_of_cut_lists;
      }
    }
  }
  EXPECT_EQ(seen.size(), 6U) << "claims of every kind";
  EXPECT_GT(known_of_cut_lists, 0);
}

// The tracker keeps a record of each backtrace in each of its tables. A group lists the ages of one
// record, that of its first block, and at most 30.
TEST(Certainty, OwnAgesAreTheGroups) {
  using Ages = std::vector<std::int64_t>;
  const TemporaryDirectory directory;
  std::map<std::string, int> seen;
  for (unsigned seed = 1; seed <= 600 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    const unsigned tables = 1 + Below(3, random);
    const unsigned places = 2 + Below(20, random);
    std::map<std::pair<std::uint64_t, std::uint64_t>, Ages> groups;  // by size and place
    std::map<std::pair<std::uint64_t, unsigned>, Ages> records;      // by place and table
    for (std::int64_t age = 0; age < 120; ++age) {                   // no two blocks are of one age
      const std::uint64_t place = Below(places, random);
      groups[{8 + 8 * (Below(9, random) / 8), place}].push_back(age);
      records[{place, Below(tables, random)}].push_back(age);
    }
    std::ostringstream lines;
    std::size_t listed = 0;
    for (const auto& [group, ages] : groups) {
      if (Below(100, random) == 0) continue;
      ++listed;
      lines << "sz " << group.first << " " << group.first * ages.size() << " num " << ages.size();
      const Ages* record = nullptr;
      for (unsigned table = tables; table-- > 0;) {
        const Ages& all = records[{group.second, table}];
        if (std::find_first_of(all.begin(), all.end(), ages.begin(), ages.end()) != all.end()) {
          record = &all;
        }
      }
      lines << " time ";
      for (std::size_t i = 0; i < std::min<std::size_t>(30, record->size()); ++i) {
        lines << (*record)[i] << " ";
      }
      lines << " bt [/no/lib.so+0x" << std::hex << group.second << std::dec << "] \n";
    }
    std::ostringstream text;
    text << "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 0\nAllocation records: "
         << groups.size() << "/" << listed << "\nBacktrace size: 10\n\n"
         << lines.str() << std::string(30, '=') << "Java-Native Stack" << std::string(30, '=')
         << "\nEND";
    const Profile profile = LoadProfile(directory.Write("report", text.str()), {});
    ASSERT_EQ(profile.groups.size(), listed);
    const Difference same = Compare(profile, profile);
    for (std::size_t i = 0; i < listed; ++i) {
      const Group& group = profile.groups[i];
      EXPECT_EQ(same.merged.groups[i].own_ages, group.own_ages);
      ++seen[!group.own_ages    ? "about"
             : group.count == 1 ? "one"
             : group.count > 30 ? "30"
                                : "all"];
      if (!group.own_ages) continue;
      const Ages& own = groups[{group.size, profile.frames[group.stack[0]].offset}];
      EXPECT_EQ(group.ages.size(), std::min<std::size_t>(own.size(), 30));
      EXPECT_TRUE(std::includes(own.begin(), own.end(), group.ages.begin(), group.ages.end()));
    }
  }
  EXPECT_EQ(seen.size(), 4U) << "lists of every kind";
}

}  // namespace
}  // namespace memleak
