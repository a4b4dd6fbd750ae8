// Figures as people read them, and the plain-text view of a report.
#include "tools/view/show.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "tools/base/format.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

TEST(Format, FiguresAndNames) {
  EXPECT_EQ(FormatBytes(1023), "1023 B");
  EXPECT_EQ(FormatBytes(1048575), "1.0 MiB");  // never "1024.0 KiB"
  EXPECT_EQ(FormatBytes(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
  EXPECT_EQ(FormatCount(1234567), "1,234,567");
  EXPECT_EQ(FormatAge(100000), "1d 3h");
  EXPECT_EQ(FormatAge(-5), "-5s");
  EXPECT_EQ(FitWidth("abcdefghijk", 10), "abcd...ijk");
  EXPECT_EQ(FitWidth("\x1b\x1b\x1b", 11), "\\x1b...\\x1b") << "never within an escape";
  EXPECT_EQ(Columns(FitWidth("\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4", 5)), 5U);
  const std::string wide = "\xe6\x97\xa5";
  EXPECT_EQ(FitWidth("a" + wide + wide + wide, 6), "a..." + wide) << "two columns each";
}

/// Six native frames: 0 inner, 1 its caller (recursive), 2 main, 3 without symbols, 4 unknown; 5 is
/// Java's.
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

std::string Print(const Profile& profile, const ViewOptions& options) {
  std::ostringstream out;
  PrintProfile(profile, options, out);
  std::istringstream lines(out.str());
  for (std::string line; std::getline(lines, line);) EXPECT_LE(Columns(line), 80U) << line;
  return out.str();
}

TEST(Show, PrintsLargestGroupsFirst) {
  const std::string text = Print(Sample(), {.top = 0});
  EXPECT_NE(text.find("\n#1  2.0 KiB  51.2 %  2 blocks of 1.0 KiB  age 3s..3m 20s\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("inner(int)  a.cpp:12\n"), std::string::npos) << text;
  EXPECT_NE(text.find("     unknown.so+0xabc\n"), std::string::npos) << text;
  EXPECT_NE(text.find("main  known.so+0x30\n"), std::string::npos) << text;
  EXPECT_NE(text.find("  age about 1m 40s..3m 19s  perhaps settled\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\n#3  10 B"), std::string::npos) << text;
  EXPECT_NE(text.find("\nJ1  8 B  100.0 %  1 block of 8 B\n     art::Run()\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("\n  /lib/unknown.so\n"), std::string::npos) << text;
  EXPECT_EQ(text.find('\033'), std::string::npos);
}

TEST(Show, EveryViewSaysWhatIsNotShown) {
  const std::string reason = " that the report does not list\n";
  const std::string unlisted = "  1.4 KiB in 1,197 groups" + reason;
  EXPECT_NE(
      Print(Sample(), {.top = 1})
          .find("Not shown: 1.9 KiB in 1,199 groups\n  510 B in 2 groups further down the list"
                " (--top N shows more)\n" +
                unlisted),
      std::string::npos);
  const std::string filtered =
      Print(Sample(), {.top = 0, .selection = {.filter = "^unk|a\\.cpp$", .min_bytes = 501}});
  EXPECT_NE(filtered.find("\n  510 B in 2 groups that the options leave out\n" + unlisted),
            std::string::npos)
      << filtered;
  for (const View view : {View::kLibraries, View::kFunctions, View::kTree, View::kCallers}) {
    EXPECT_NE(Print(Sample(), {.view = view, .top = 0})
                  .find("Not shown: 1.4 KiB in 1,197 groups" + reason),
              std::string::npos);
  }
  EXPECT_NE(
      Print(Sample(), {.view = View::kFunctions, .top = 1}).find("\n  510 B in 2 groups whose"),
      std::string::npos);
  Profile one;
  one.path = "dump";
  one.header = {.total_bytes = 1, .groups = 1, .listed = 1, .backtrace_size = 1};
  EXPECT_EQ(Print(one, {}),
            "Report dump\n  1 B held (1 byte) in 1 group of one size and one stack\n"
            "  0 blocks listed, with at most 1 frame each\n\n"
            "Not shown: 1 B in 1 group that the report does not list\n");
  // A hostile head takes no wider terminal.
  const std::uint64_t most = ~std::uint64_t{0};
  one.header = {.total_bytes = most, .groups = most, .listed = most, .backtrace_size = most};
  one.groups = {{GroupKind::kNative, most, most, most - 1, {}, {}}};
  EXPECT_NE(Print(one, {}).find("\n  in 18,446,744,073,709,551,615 groups"), std::string::npos);
  Profile empty;
  empty.path = "dump";
  empty.complete = true;
  EXPECT_EQ(Print(empty, {}), std::string("Report dump\n  ") + kNothingHeld + "\n");
}

TEST(Show, TreesStepRightAtForksOnly) {
  const std::string tree = Print(Sample(), {.view = View::kTree, .top = 0});
  EXPECT_NE(tree.find("\n   2.5 KiB  63.7 %  main\n   2.0 KiB  51.2 %    nnn"), std::string::npos)
      << tree;
  EXPECT_NE(tree.find("\n   2.0 KiB  51.2 %    inner(int)\n"), std::string::npos) << tree;
  EXPECT_NE(tree.find("\n     500 B  12.5 %    unknown.so+0xabc\n"), std::string::npos) << tree;
  const std::string callers = Print(Sample(), {.view = View::kCallers, .top = 1});
  EXPECT_NE(callers.find("\n     510 B  12.8 %  (2 more)\n"), std::string::npos) << callers;
  // In another order a small branch may come first.
  Profile reversed = Sample();
  reversed.groups[0].ages = {300};
  const std::string aged =
      Print(reversed, {.view = View::kCallers, .top = 2, .selection = {.sort = SortKey::kAge}});
  EXPECT_NE(aged.find("  oldest  from"), std::string::npos) << aged;
  EXPECT_NE(aged.find("   3m 20s  inner"), std::string::npos) << aged;
  EXPECT_LT(aged.find("inner(int)"), aged.find("unknown.so+0xabc")) << aged;
  EXPECT_NE(aged.find("      5m  (1 more)"), std::string::npos) << "0.3 %: " << aged;
  // What has no stack is a branch too, and one small branch is drawn rather than counted.
  Profile bare = Sample();
  bare.groups[1].stack.clear();
  for (const View view : {View::kTree, View::kCallers}) {
    const std::string all = Print(bare, {.view = view});
    EXPECT_NE(all.find("\n   2.0 KiB  51.2 %  (no stack)\n"), std::string::npos) << all;
    EXPECT_NE(all.find("\n      10 B   0.2 %  [unknown]\n"), std::string::npos) << all;
  }
  const std::string counted =
      Print(Sample(), {.view = View::kCallers, .top = 0, .selection = {.sort = SortKey::kCount}});
  EXPECT_LT(counted.find("5  unknown.so+0xabc"), counted.find("2  inner(int)")) << counted;
}

TEST(Aggregate, CountsRecursionOnceAndSelfApart) {
  const Profile profile = Sample();
  const Selected all = SelectGroups(profile, {});
  const std::vector<Row> rows = AddUp(profile, all, RowKind::kFunction, SortKey::kTotal);
  ASSERT_EQ(rows.size(), 5U);
  EXPECT_EQ(rows[0].name, "inner(int)");
  EXPECT_EQ(rows[0].inclusive, (Sums{2548, 2, 7}));
  EXPECT_EQ(rows[0].self, (Sums{2048, 1, 2}));
  EXPECT_EQ(rows[0].oldest, 200);
  EXPECT_EQ(rows[1].name, "main");
  EXPECT_EQ(rows[1].self, Sums{});
  EXPECT_EQ(rows[2].inclusive, (Sums{2048, 1, 2})) << "calls itself";
  const std::vector<Row> libraries = AddUp(profile, all, RowKind::kLibrary, SortKey::kCount);
  EXPECT_EQ(libraries[0].name, "/lib/known.so");
  EXPECT_EQ(libraries.back().name, "[unknown]");
  // Hostile sums stop at their ends, so that no view shows the rest as next to nothing.
  Sums sums{~std::uint64_t{0} - 1, 1, 1};
  sums.Add(profile.groups[1]);
  EXPECT_EQ(sums.bytes, ~std::uint64_t{0});
  sums.Subtract(sums);
  sums.Subtract({1, 1, 1});
  EXPECT_EQ(sums, Sums{});
}

TEST(Aggregate, AgesSelectAndTellGrowth) {
  const Profile profile = Sample();
  EXPECT_EQ(SelectGroups(profile, {.older_than = 199}).groups, (std::vector<std::size_t>{1, 2}));
  EXPECT_EQ(SelectGroups(profile, {.sort = SortKey::kCount}).groups[0], 2U);
  EXPECT_EQ(SelectGroups(profile, {.kind = GroupKind::kJava, .older_than = 0}).cut.groups, 1U);
  EXPECT_THROW(SelectGroups(profile, {.filter = "("}), UserError);
  EXPECT_EQ(AgeSpan(profile), 200);
  Group group;
  group.ages = {199, 120, 60, 2};
  EXPECT_EQ(PatternOf(group, 200), AgePattern::kGrowing);
  EXPECT_EQ(PatternOf(group, 2000), AgePattern::kRecent);
  group.ages = {199, 198, 197, 50};
  EXPECT_EQ(PatternOf(group, 200), AgePattern::kSettled);
  group.ages.pop_back();
  EXPECT_EQ(PatternOf(group, 200), AgePattern::kUnknown);
}

}  // namespace
}  // namespace memleak
