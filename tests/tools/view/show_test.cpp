// SPDX-License-Identifier: Apache-2.0
// Formatted figures, and the text views of a report, a difference and trends.
#include "tools/view/show.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "tests/tools/profile_builder.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/view/diff_view.h"
#include "tools/view/trend_table.h"

namespace memleak {
namespace {

TEST(Format, FiguresAndNames) {
  EXPECT_EQ(FormatBytes(1023), "1023 B");
  EXPECT_EQ(FormatBytes(1048575), "1.0 MiB");  // not "1024.0 KiB"
  EXPECT_EQ(FormatBytes(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
  EXPECT_EQ(FormatCount(1234567), "1,234,567");
  EXPECT_EQ(FormatAge(100000), "1d 3h");
  EXPECT_EQ(FormatAge(-5), "-5s");
  EXPECT_EQ(FitWidth("abcdefghijk", 10), "abcd...ijk");
  EXPECT_EQ(FitWidth("\x1b\x1b\x1b", 11), "\\x1b...\\x1b") << "not within an escape";
  EXPECT_EQ(Columns(FitWidth("\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4", 5)), 5U);
  const std::string wide = "\xe6\x97\xa5";
  EXPECT_EQ(FitWidth("a" + wide + wide + wide, 6), "a..." + wide) << "two columns each";
}

/// Frames: 0 inner, 1 its recursive caller, 2 main, 3 without symbols, 4 unknown, 5 Java-native.
Profile Sample() {
  Profile profile;
  profile.path = "dump";
  profile.complete = true;
  profile.header = {.total_bytes = 4000, .groups = 1200, .listed = 1000, .backtrace_size = 10};
  profile.libraries = {{"/lib/known.so", "abcd", true, ""},
                       {"/lib/unknown.so", "", false, "/lib/unknown.so"}};
  profile.frames = {{0, 0x10, 0, "inner(int)", "/src/a.cpp", 12, false},
                    {0, 0x20, 0, std::string(200, 'n'), "/src/b.cpp", 99999, false},
                    {0, 0x30, 0, "main", "", 0, false},
                    {1, 0xabc, 0, "", "", 0, false},
                    {-1, 0, 0, "", "", 0, false},
                    {-1, 0x1f, 0, "art::Run()", "", 0, false}};
  profile.groups = {{GroupKind::kNative, 10, 1, 10, {4}, {4}, true},
                    {GroupKind::kNative, 1024, 2, 2048, {3, 200}, {0, 1, 1, 2}, true},
                    {GroupKind::kNative, 100, 5, 500, {100, 120, 150, 199}, {3, 0, 2}},
                    {GroupKind::kJava, 8, 1, 8, {}, {5}}};
  return profile;
}

// `text`, which must have `parts` in this order, and no line wider than a terminal.
void ExpectParts(const std::string& text, const std::vector<std::string>& parts) {
  std::size_t at = 0;
  for (const std::string& part : parts) {
    const std::size_t found = text.find(part, at);
    EXPECT_NE(found, std::string::npos) << part << " in\n" << text;
    at = std::min(found, text.size());
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(Columns(line), 80U) << line;
}

void ExpectPrints(const Profile& profile, const ViewOptions& options,
                  const std::vector<std::string>& parts) {
  std::ostringstream out;
  PrintProfile(profile, options, out);
  ExpectParts(out.str(), parts);
}

TEST(Show, PrintsEveryViewAndWhatItOmits) {
  const std::string unlisted = "  1.4 KiB in 1,197 groups that the report does not list\n";
  ExpectPrints(
      Sample(), {.top = 0},
      {"\n#1  2.0 KiB  51.2 %  2 blocks of 1.0 KiB  age 3s..3m 20s\n", "inner(int)  a.cpp:12\n",
       "main  known.so+0x30\n", "  age about 1m 40s..3m 19s  perhaps settled\n",
       "     unknown.so+0xabc\n", "\n#3  10 B",
       "\nJ1  8 B  100.0 %  1 block of 8 B\n     art::Run()\n", "\n  /lib/unknown.so\n"});
  ExpectPrints(Sample(), {.top = 1},
               {"Not shown: 1.9 KiB in 1,199 groups\n  510 B in 2 groups further down the list"
                " (--top N shows more)\n" +
                unlisted});
  ExpectPrints(Sample(), {.top = 0, .selection = {.filter = "^unk|a\\.cpp$", .min_bytes = 501}},
               {"\n  510 B in 2 groups that the options leave out\n" + unlisted});
  ExpectPrints(Sample(), {.view = View::kFunctions, .top = 1},
               {"   2.5 KiB  63.7 %    2.0 KiB           7  inner", "510 B in 2 groups whose"});
  ExpectPrints(Sample(), {.view = View::kTree, .top = 0},
               {"\n   2.5 KiB  63.7 %  main\n   2.0 KiB  51.2 %    nnn",
                "\n   2.0 KiB  51.2 %    inner(int)\n", "\n     500 B  12.5 %    inner(int)\n",
                "\n     500 B  12.5 %    unknown.so+0xabc\n"});
  ExpectPrints(Sample(), {.view = View::kCallers, .top = 1}, {"\n     510 B  12.8 %  (2 more)\n"});
  // With another order a small branch may come first.
  Profile aged = Sample();
  aged.groups[0].ages = {300};
  ExpectPrints(aged, {.view = View::kCallers, .top = 2, .selection = {.sort = SortKey::kAge}},
               {"  oldest  from", "   3m 20s  inner", "unknown.so+0xabc", "      5m  (1 more)"});
  ExpectPrints(aged, {.view = View::kCallers, .top = 0, .selection = {.sort = SortKey::kCount}},
               {"5  unknown.so+0xabc", "2  inner(int)"});
  // Groups without a stack form a branch. A single small branch is printed, not summed up.
  aged.groups[1].stack.clear();
  ExpectPrints(aged, {.view = View::kTree},
               {"\n   2.0 KiB  51.2 %  (no stack)\n", "\n      10 B   0.2 %  [unknown]\n"});
  // A hostile head does not make lines wider. Sums stop at the largest number.
  Profile one;
  const std::uint64_t most = ~std::uint64_t{0};
  one.header = {.total_bytes = most, .groups = most, .listed = most, .backtrace_size = most};
  one.groups = {{GroupKind::kNative, most, most, most - 1, {}, {}},
                {GroupKind::kNative, most, most, most, {}, {}}};
  ExpectPrints(one, {}, {"\n  in 18,446,744,073,709,551,615 groups", "16.0 EiB"});
  Profile empty;
  empty.complete = true;
  ExpectPrints(empty, {}, {kNothingHeld});
}

TEST(Show, AgesSelectGroupsAndShowGrowth) {
  const Profile profile = Sample();
  EXPECT_EQ(SelectGroups(profile, {.older_than = 199}).groups, (std::vector<std::size_t>{1, 2}));
  EXPECT_EQ(SelectGroups(profile, {.kind = GroupKind::kJava, .older_than = 0}).cut.groups, 1U);
  EXPECT_THROW(SelectGroups(profile, {.filter = "("}), UserError);
  Group group;
  group.ages = {199, 120, 60, 2};
  EXPECT_EQ(PatternOf(group, 200), AgePattern::kGrowing);
  EXPECT_EQ(PatternOf(group, 2000), AgePattern::kRecent);
  group.ages = {199, 198, 197, 50};
  EXPECT_EQ(PatternOf(group, 200), AgePattern::kSettled);
  group.ages.pop_back();
  EXPECT_EQ(PatternOf(group, 200), AgePattern::kUnknown);
}

TEST(Diff, PrintsSumsByStackAndWhatIsNotJudged) {
  const std::string library = "/lib/" + std::string(200, 'l') + ".so";
  ProfileBuilder before;
  before.In(library, 1, "f").Group(1000, 2).In(library, 1, "gone").Group(100, 1);
  before.In(library, 1, "kept").Group(300, 2);
  ProfileBuilder after;
  after.In(library, 1, "f").Group(1000, 8).In(library, 1, "f").Group(2000, 4);
  after.In(library, 2).Group(500, 1).In(library, 1, "kept").Group(300, 1);
  after.In(library, 1, "kept").Group(300, 1);
  std::ostringstream out;
  PrintDifference(before.Done(), after.Done(), 1, out);
  ExpectParts(out.str(),
              {"+14.1 KiB (+14,400 bytes, +533.3 %), +2 groups", "Grew: +14.2 KiB in 2 stacks",
               "#1  +13.7 KiB", "new    0 B -> 7.8 KiB, +4 blocks of 2.0 KiB",
               "grew   2.0 KiB -> 7.8 KiB, +6 blocks of 1000 B", "and +500 B in 1 more stack (",
               "Shrank: -100 B in 1 stack", "-1 block of 100 B",
               "Unchanged: 600 B in 1 group (call sites of a function as one)."});
  out.str("");
  Profile cut = before.Done(1200, 5000);
  PrintDifference(cut, after.Done(), 1, out);
  cut.damaged = {{2, ""}};
  cut.damaged_lines = 1;
  PrintDifference(cut, after.Done(), 1, out);
  ExpectParts(out.str(),
              {"Grew: +5.9 KiB in 1 stack",
               "Not judged: 3 groups, 600 B -> 8.9 KiB; the largest: 0 B -> 7.8 KiB in f\n",
               "\nA report lists its 1000 largest groups; no option changes that.",
               "The old report counts 4.9 KiB more in 1,200 groups that it does not",
               "all  not known", "A report is truncated or damaged: write it again."});
}

TEST(Trends, PrintsGrowthAndWhatIsNotJudged) {
  Trends trends;
  const auto add = [&](double seconds, std::uint64_t count, std::uint64_t size) {
    ProfileBuilder builder;
    builder.In("/a/lib.so", 1, "Copy").Group(8, count).In("/a/lib.so", 2, "Other").Group(size, 1);
    trends.Add(seconds, builder.Done(7, 2048));
  };
  add(0, 1, 16);
  add(60, 5, 24);
  SavedReport saved;
  saved.unlisted = {.bytes = 2048, .groups = 7, .blocks = 0};
  std::ostringstream out;
  PrintTrends({SavedReport{}, saved}, trends.Result(), 0, out);
  ExpectParts(out.str(), {"#1  +32 B  +32 B/min", "1 -> 5 blocks of 8 B\n", "     Copy",
                          "[lib.so]\n", "1 of 3 groups", "not judged: 2 groups of 40 B",
                          "0 B in 0 groups of the first report, 2.0 KiB in 7 groups"});
}

}  // namespace
}  // namespace memleak
