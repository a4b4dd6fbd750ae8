// What two reports allow to say of a group: matching across runs, and the limits of a cut list.
#include "tools/report/diff.h"

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/temporary_directory.h"
#include "tests/tools/profile_builder.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/export/diff_json.h"
#include "tools/export/json.h"
#include "tools/export/json_input.h"
#include "tools/view/diff_view.h"

namespace memleak {
namespace {

// "grew", ... by the name of a group's innermost frame and its size.
std::map<std::string, std::string> Changes(const Difference& difference) {
  std::map<std::string, std::string> changes;
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    const Group& group = difference.merged.groups[i];
    const Frame& frame = difference.merged.frames[group.stack.front()];
    changes[FrameName(difference.merged, frame) + "/" + std::to_string(group.size)] =
        ChangeName(difference.changes[i].change);
  }
  return changes;
}

using Expected = std::map<std::string, std::string>;

TEST(Diff, MatchesByFunctionAcrossRunsAndByBuildIdWithoutSymbols) {
  const Profile before = ProfileBuilder()
                             .In("/app/one/liba.so", 0x10, "leak")
                             .In("/bin/p", 1, "main")
                             .Group(8, 2)
                             .In("/app/one/liba.so", 0x10, "leak")
                             .In("/bin/p", 9, "main")
                             .Group(8, 3)  // another call in the same function
                             .In("/app/one/libother.so", 0x10, "leak")
                             .In("/bin/p", 1, "main")
                             .Group(8, 1)
                             .In("/x/plain.so", 0x77, "", "aa")
                             .Group(32, 1)
                             .In("/x/rebuilt.so", 0x88, "", "bb")
                             .Group(32, 1)
                             .In("/app/one/liba.so", 0x20, "gone")
                             .Group(16, 1)
                             .Done();
  const Profile after = ProfileBuilder()
                            .In("/app/two/liba.so (deleted)", 0x14, "leak")
                            .In("/bin/p", 2, "main")
                            .Group(8, 9)
                            .In("/app/two/liba.so (deleted)", 0x14, "leak")
                            .In("/bin/p", 2, "main")
                            .Group(24, 1)
                            .In("/y/renamed.so", 0x77, "", "aa")
                            .Group(32, 1)
                            .In("/x/rebuilt.so", 0x88, "", "cc")
                            .Group(32, 1)
                            .Add(FrameOf(-1, 0x88))
                            .Group(32, 1)
                            .Done();
  const Difference difference = Compare(before, after);
  ASSERT_EQ(difference.changes.size(), 8U);
  EXPECT_EQ(difference.changes[0].change, Change::kGrew);
  EXPECT_EQ(SureGrowth(difference.changes[0]), 8 * 9 - 8 * 5);
  EXPECT_EQ(difference.changes[1].change, Change::kNew);  // another size of the same stack
  EXPECT_EQ(difference.changes[0].stack_id, difference.changes[1].stack_id);
  EXPECT_EQ(difference.changes[2].change, Change::kSame);
  EXPECT_EQ(difference.changes[3].change, Change::kNew);
  EXPECT_EQ(difference.changes[4].change, Change::kNew);   // no library is not any library
  EXPECT_EQ(difference.changes[5].change, Change::kGone);  // "leak" of another library
  const Frame& gone = difference.merged.frames[difference.merged.groups[7].stack.front()];
  EXPECT_EQ(gone.function, "gone");
  EXPECT_EQ(difference.merged.libraries[static_cast<std::size_t>(gone.library)].path,
            "/app/one/liba.so");
}

// The bounds are as narrow as the lists allow. That they hold is for the certainty test.
TEST(Diff, SaysNewAndGoneOfWhatTheOtherListCannotHide) {
  const Profile full = ProfileBuilder()
                           .In("l", 1, "big")
                           .Group(10, 50)  // 500: grew by 400 at least
                           .In("l", 2, "whole")
                           .Group(200, 2)  // one block would be listed
                           .In("l", 3, "small")
                           .Group(10, 6)  // 60: may have been there
                           .In("l", 6, "kept")
                           .Group(100, 3)
                           .Done();
  Profile cut = ProfileBuilder()
                    .In("l", 6, "kept")
                    .Group(100, 3)
                    .In("l", 8, "last")
                    .Group(50, 2)
                    .Done(40, 900);
  const Difference forth = Compare(cut, full);
  EXPECT_EQ(Changes(forth), (Expected{{"big/10", "grew"},
                                      {"whole/200", "new"},
                                      {"small/10", "unknown"},
                                      {"kept/100", "same"},
                                      {"last/50", "gone"}}));
  EXPECT_EQ(SureGrowth(forth.changes[0]), 400);
  EXPECT_EQ(forth.changes[0].before.most, 100U);
  // All that is not listed holds no more than the head counts beyond the list.
  cut.header.total_bytes -= 845;
  EXPECT_EQ(Changes(Compare(full, cut))["small/10"], "shrank");
}

TEST(Diff, RefusesDocumentsThatAreNoReport) {
  const TemporaryDirectory directory;
  const Profile profile =
      ProfileBuilder().In("l", 1, "f").Group(10, 5).In("l", 2).Group(9, 1).Done();
  const nlohmann::json whole = ToJson(profile);
  const auto refusal = [&](const char* pointer, const nlohmann::json& value) -> std::string {
    nlohmann::json document = whole;
    document[nlohmann::json::json_pointer(pointer)] = value;
    try {
      LoadDocument(directory.Write("bad.json", document.dump()));
    } catch (const UserError& error) {
      return error.what();
    }
    return "read";
  };
  EXPECT_EQ(refusal("/groups/0/pattern", "growing"), "read") << "what is not known is skipped";
  EXPECT_EQ(refusal("/frames/0/library", -1), "read");
  for (const auto& [pointer, value] :
       std::initializer_list<std::pair<const char*, nlohmann::json>>{{"/groups/0/stack/0", 2},
                                                                     {"/groups/0/stack/0", -1},
                                                                     {"/frames/0/library", 1},
                                                                     {"/groups/0/total", -5},
                                                                     {"/groups/0/total", "5"},
                                                                     {"/groups/0/kind", "other"},
                                                                     {"/frames", 7},
                                                                     {"/totals", nullptr},
                                                                     {"/version", 2},
                                                                     {"/groups", {1, 2}},
                                                                     {"/libraries/0/found", 1}}) {
    EXPECT_NE(refusal(pointer, value).find("; make one with"), std::string::npos) << pointer;
  }
  EXPECT_NE(refusal("/base", {}).find("damaged document"), std::string::npos);
  nlohmann::json compared = nlohmann::json::parse(DiffJson(profile, profile));
  const std::string both = directory.Write("both.json", compared.dump());
  EXPECT_EQ(LoadAnyDocument(both).base->path, profile.path);
  EXPECT_THROW(LoadDocument(both), UserError);
  for (const char* pointer :
       {"/base/totals", "/base/report", "/groups/1/before", "/groups/0/status"}) {
    nlohmann::json broken = compared;
    broken[nlohmann::json::json_pointer(pointer)] = "other";
    EXPECT_THROW(LoadAnyDocument(directory.Write("bad.json", broken.dump())), UserError) << pointer;
  }
  std::ostringstream chosen;
  WriteJson(ToJson(profile, {0}), chosen);
  EXPECT_THROW(LoadDocument(directory.Write("chosen.json", chosen.str())), UserError);
}

TEST(Diff, PrintsSumsByStackWithinEightyColumns) {
  const std::string library = "/lib/" + std::string(200, 'l') + ".so";
  const Profile before = ProfileBuilder()
                             .In(library, 1, "f")
                             .Group(1000, 2)
                             .In(library, 1, "gone")
                             .Group(100, 1)
                             .In(library, 1, "kept")
                             .Group(300, 2)
                             .Done(1200, 5000);
  const Profile after = ProfileBuilder()
                            .In(library, 1, "f")
                            .Group(1000, 8)
                            .In(library, 1, "f")
                            .Group(2000, 4)
                            .In(library, 2)
                            .Group(500, 1)
                            .In(library, 3)
                            .Group(10, 1)
                            .In(library, 1, "kept")
                            .Group(300, 1)
                            .In(library, 1, "kept")
                            .Group(300, 1)
                            .Done();
  std::ostringstream out;
  PrintDifference(before, after, 1, out);
  const std::string text = out.str();
  Profile damaged = before;
  damaged.damaged_lines = 2;
  damaged.damaged = {{2, ""}};
  PrintDifference(damaged, after, 1, out);
  PrintDifference(before, ProfileBuilder().In(library, 1, "h").Group(100, 30).Done(), 0, out);
  for (const char* part : {"missing it may be in lines that could not be read.\n", "all  not known",
                           "0 B to 100 B -> 2.9 KiB, at least +29 blocks of 100 B\n"}) {
    EXPECT_NE(out.str().find(part, text.size()), std::string::npos) << part;
  }
  for (const char* part :
       {"+9.2 KiB (+9,410 bytes, +122.2 %), -1,197 groups", "Grew: +14.2 KiB in 2 stacks",
        "#1  +13.7 KiB", "new    0 B -> 7.8 KiB, +4 blocks of 2.0 KiB",
        "grew   2.0 KiB -> 7.8 KiB, +6 blocks of 1000 B", "and +500 B in 1 more stack (",
        "Shrank: -100 B in 1 stack", "-1 block of 100 B",
        "Unchanged: 600 B in 1 group (call sites of a function as one).",
        "Nothing certain can be said of 1 group (0 B -> 10 B):\n",
        "where a call site is missing it may merely have been left out of the list.",
        "The old report counts 4.9 KiB more in 1,200 groups that it does not list."}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(Columns(line), 80U) << line;
}

}  // namespace
}  // namespace memleak
