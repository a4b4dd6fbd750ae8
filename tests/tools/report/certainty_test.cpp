// SPDX-License-Identifier: Apache-2.0
// Compares diff and trend with a literal model: random heaps, written as reports that may be cut,
// damaged or read from documents. The claims are exactly those that follow from the lists, and they
// are true of the heaps.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <compare>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "tests/temporary_directory.h"
#include "tests/tools/profile_builder.h"
#include "tools/export/json.h"
#include "tools/export/json_input.h"
#include "tools/report/diff.h"
#include "tools/report/trend.h"

namespace memleak {
namespace {

/// A call site: where it allocates, and which of two calls in main leads there.
struct Site {
  GroupKind kind = GroupKind::kNative;
  std::uint64_t size = 0;
  std::size_t library = 0;
  unsigned place = 0;
  unsigned call = 0;
  auto operator<=>(const Site&) const = default;
};
using Heap = std::map<Site, std::uint64_t>;  // blocks by site

// Two libraries of one name, which is not UTF-8, another one with the same functions, and one
// without symbols.
const std::vector<std::string> kPaths = {"/a/\xe2\x82twin.so", "/b/\xe2\x82twin.so", "/other.so",
                                         "/plain.so"};
constexpr std::size_t kPlain = 3;

std::string FunctionOf(const Site& site) {
  return site.library == kPlain ? "" : site.place < 5 ? "f" : "g";
}

// The name of a group. All sites that differ only by the place within a function have the same
// name.
std::string RowName(GroupKind kind, std::uint64_t size, std::string_view library,
                    std::string_view function) {
  const std::size_t offset = function.find("+0x");  // after the library's name
  std::ostringstream name;
  name << (kind == GroupKind::kJava ? "java " : "") << size << " "
       << library.substr(library.size() - 7) << " "
       << function.substr(offset == std::string_view::npos ? 0 : offset);
  return name.str();
}

std::string RowOf(const Site& site) {
  const std::string function =
      site.library == kPlain ? "+0x" + std::to_string(site.place) : FunctionOf(site);
  return RowName(site.kind, site.size, kPaths[site.library], function);
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
    heap[{kind, 8 * Below(4, random), Below(4, random), Below(10, random), Below(2, random)}] =
        1 + Below(20, random);
  }
  return heap;
}

// Writes the report of a heap. If `rebuilt` is set, library 2 is of another build.
Written Write(const Heap& heap, bool rebuilt, Random& random) {
  Written written{heap, {}, {}};
  std::vector<std::pair<Site, std::uint64_t>> sites(heap.begin(), heap.end());
  std::sort(sites.begin(), sites.end(), [](const auto& a, const auto& b) {
    const auto bytes = [](const auto& of) { return of.first.size * of.second; };
    return std::pair(a.first.kind, bytes(b)) < std::pair(b.first.kind, bytes(a));
  });
  const unsigned longest = Below(2, random) == 0 ? 1000 : Below(10, random);
  const bool damaged = Below(8, random) == 0;
  const std::size_t torn = Below(6, random) == 0 ? Below(20, random) : sites.size();
  // Files may have moved or been replaced since.
  const std::string directory = Below(2, random) == 0 ? "" : "/moved";
  const std::string suffix = Below(2, random) == 0 ? "" : " (deleted)";
  ReportHeader header;
  ProfileBuilder builder;
  for (const std::string& path : kPaths) {
    const bool other = rebuilt && path == kPaths[2];
    builder.Library(directory + path + suffix, path.substr(1, 1) + (other ? "2" : "1"));
  }
  for (std::size_t i = 0; i < sites.size(); ++i) {
    const auto& [site, count] = sites[i];
    const bool native = site.kind == GroupKind::kNative;
    if (native) header.total_bytes += site.size * count;
    if (native && ++header.groups > longest) continue;
    if (native) ++header.listed;
    // The tracker omits native groups without frames.
    if (i >= torn || ((native || damaged) && Below(12, random) == 0)) continue;
    const unsigned moved = rebuilt && site.library == 2 ? 100 : 0;
    builder.In(directory + kPaths[site.library] + suffix, site.place + moved, FunctionOf(site))
        .In("/bin/prog", site.call, "main")
        .Group(site.size, count, site.kind);
    written.listed.insert(sites[i]);
  }
  Profile& profile = written.profile;
  profile = builder.Done();
  profile.header = header;
  profile.complete = torn >= sites.size();
  profile.damaged_lines = damaged ? 1 : 0;
  if (Below(8, random) != 0) return written;
  const TemporaryDirectory temporary;
  std::ostringstream text;
  WriteJson(ToJson(profile), text);
  profile = LoadDocument(temporary.Write("report.json", text.str())).profile;
  return written;
}

/// The lists of all reports, as far as they concern a group in one report.
struct Claim {
  bool known = false;
  std::uint64_t count = 0;  // of the listed blocks
  std::uint64_t total = 0;
  std::uint64_t truth = 0;  // bytes of the heap at the sites that any report lists
};

// The claims of each group, by report. In library 2 call sites are counted only if it was rebuilt.
std::map<std::string, std::vector<Claim>> ClaimsOf(const std::vector<Written>& reports,
                                                   bool rebuilt) {
  std::map<std::string, std::map<Site, std::vector<unsigned>>> rows;  // lines by report
  std::map<std::string, std::vector<Claim>> claims;
  Heap all;
  for (const Written& report : reports) all.insert(report.listed.begin(), report.listed.end());
  for (const auto& [site, ignored] : all) {
    Site seen = site;
    if (rebuilt && site.library == 2) seen.place = 0;
    std::vector<unsigned>& lines = rows[RowOf(site)][seen];
    std::vector<Claim>& row = claims[RowOf(site)];
    lines.resize(reports.size());
    row.resize(reports.size());
    for (std::size_t i = 0; i < reports.size(); ++i) {
      const auto listed = reports[i].listed.find(site);
      const auto held = reports[i].heap.find(site);
      if (held != reports[i].heap.end()) row[i].truth += site.size * held->second;
      if (listed == reports[i].listed.end()) continue;
      ++lines[i];
      row[i].count += listed->second;
      row[i].total += site.size * listed->second;
    }
  }
  for (auto& [name, row] : claims) {
    for (std::size_t i = 0; i < reports.size(); ++i) {
      const GroupKind kind = name.starts_with("java") ? GroupKind::kJava : GroupKind::kNative;
      row[i].known =
          reports[i].profile.ListsAll(kind) ||
          std::all_of(rows[name].begin(), rows[name].end(), [&](const auto& site) {
            return site.second[i] == *std::max_element(site.second.begin(), site.second.end());
          });
    }
  }
  return claims;
}

Change ChangeOf(const Claim& before, const Claim& after) {
  if (!before.known || !after.known) return Change::kUnknown;
  const auto rank = [](const Claim& claim) { return std::pair(claim.total, claim.count); };
  if (rank(before) == rank(after)) return Change::kSame;
  if (before.count == 0) return Change::kNew;
  if (after.count == 0) return Change::kGone;
  return rank(before) < rank(after) ? Change::kGrew : Change::kShrank;
}

void ExpectClaim(const Claim& claim, const GroupValue& value) {
  EXPECT_EQ(value.known, claim.known);
  EXPECT_EQ(value.count, claim.count);
  EXPECT_EQ(value.total, claim.total);
}

TEST(Certainty, ClaimsExactlyWhatTheListsDetermine) {
  std::map<Change, int> seen;
  int known_in_cut_lists = 0;
  for (unsigned seed = 1; seed <= 1000 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    const bool rebuilt = Below(4, random) == 0;
    const Heap first = Next({}, random);
    const std::vector<Written> reports = {Write(first, false, random),
                                          Write(Next(first, random), rebuilt, random)};
    const auto claims = ClaimsOf(reports, rebuilt);
    const Difference difference = Compare(reports[0].profile, reports[1].profile);
    const Profile& merged = difference.merged;
    EXPECT_EQ(difference.changes.size(), claims.size());
    for (std::size_t i = 0; i < difference.changes.size(); ++i) {
      const Group& group = merged.groups[i];
      const Frame& frame = merged.frames[group.stack[0]];
      const std::string& path = merged.libraries[static_cast<std::size_t>(frame.library)].path;
      const std::string row =
          RowName(group.kind, group.size, LibraryName(path), FrameName(merged, frame));
      SCOPED_TRACE(row);
      const std::vector<Claim>& claim = claims.at(row);
      const GroupChange& change = difference.changes[i];
      ExpectClaim(claim[0], change.before);
      ExpectClaim(claim[1], change.after);
      EXPECT_EQ(change.change, ChangeOf(claim[0], claim[1]));
      const bool judged = change.change != Change::kUnknown;
      EXPECT_EQ(change.growth, judged ? Growth(claim[0].total, claim[1].total) : 0);
      ++seen[change.change];
    }
    if (rebuilt) continue;
    Trends trends;
    for (std::size_t i = 0; i < 2; ++i) trends.Add(static_cast<double>(i), reports[i].profile);
    for (const GroupTrend& group : trends.Result()) {
      const std::string row = RowName(group.kind, group.size, group.libraries[0], group.stack[0]);
      SCOPED_TRACE(row);
      for (std::size_t i = 0; i < 2; ++i) {
        const Claim& claim = claims.at(row)[i];
        ExpectClaim(claim, group.values[i]);
        if (!claim.known) continue;
        EXPECT_EQ(claim.total, claim.truth);
        known_in_cut_lists += reports[i].profile.ListsAll(group.kind) ? 0 : 1;
      }
    }
  }
  EXPECT_EQ(seen.size(), 6U) << "claims of every kind";
  EXPECT_GT(known_in_cut_lists, 0);
}

TEST(Line, IntervalOfFewAndOfManyPoints) {
  EXPECT_FALSE(FitLine({{0, 1}, {1, 2}})->margin);
  EXPECT_FALSE(FitLine({{2, 1}, {2, 9}}));
  // y alternates around 0 at x = 0 to 20, so slope 0 has a margin of t(19) * s / sqrt(xx).
  std::vector<Point> points;
  for (int i = 0; i <= 20; ++i) points.push_back({double(i), i % 2 == 0 ? 1.0 : -1.0});
  const double scatter = 21 - 1.0 / 21;
  EXPECT_NEAR(*FitLine(points)->margin, 2.0930 * std::sqrt(scatter / 19 / 770), 2e-4);
}

// The tracker keeps a record of each backtrace in each of its tables. A group lists at most 30 ages
// of one record, that of its first block.
TEST(Certainty, OwnAgesBelongToTheGroup) {
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
    for (std::int64_t age = 0; age < 120; ++age) {  // no two blocks have the same age
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
