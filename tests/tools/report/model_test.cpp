// SPDX-License-Identifier: Apache-2.0
// Reads a report into the model, writes the model as a JSON document, and reads that.
#include "tools/report/model.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/temporary_directory.h"
#include "tools/base/user_error.h"
#include "tools/export/json.h"
#include "tools/export/json_input.h"

namespace memleak {
namespace {

const std::string kText =
    "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 5000\n"
    "Allocation records: 3/2\nBacktrace size: 10\n\n"
    "sz 32 96 num 3 time 5 200 0  bt [/absent\xff.so+0x10] [unknow][+0x1] \n"
    "damaged\n"
    "sz 8 8 num 1 time  bt [/absent\xff.so+0x10] [unknow]\n"
    "==============================Java-Native Stack==============================\n"
    "sz 16 64 num 4\n#00 rel_pc 1a _ZN3art3RunEv\n#01 rel_pc 1b \n#02 rel_pc 1a _ZN3art3RunEv\nEND";

TEST(Model, KeepsEachFrameOnceAndEveryGroup) {
  const TemporaryDirectory directory;
  const Profile profile = LoadProfile(directory.Write("report", kText), {});
  EXPECT_TRUE(profile.complete);
  EXPECT_GT(profile.made, 1'500'000'000);
  ASSERT_EQ(profile.groups.size(), 3U);
  EXPECT_EQ(profile.frames.size(), 5U);
  const Group& first = profile.groups[0];
  ASSERT_EQ(first.stack.size(), 3U);
  EXPECT_EQ(profile.groups[1].stack, (std::vector<std::uint32_t>{first.stack[0], first.stack[1]}));
  EXPECT_EQ(FrameName(profile, profile.frames[first.stack[0]]), "absent\xff.so+0x10");
  EXPECT_EQ(FrameName(profile, profile.frames[first.stack[1]]), "[unknown]");
  EXPECT_EQ(FrameName(profile, profile.frames[first.stack[2]]), "(nameless)+0x1");
  const Group& java = profile.groups[2];
  EXPECT_EQ(java.kind, GroupKind::kJava);
  EXPECT_EQ(java.stack[0], java.stack[2]);
  EXPECT_EQ(profile.frames[java.stack[0]].function, "art::Run()");
  EXPECT_EQ(profile.Listed(GroupKind::kNative), (Sums{104, 2, 4}));
  EXPECT_EQ(profile.Unlisted(), (Sums{4896, 1, 0}));
}

nlohmann::json Written(const nlohmann::json& document) {
  std::ostringstream out;
  WriteJson(document, out);
  return nlohmann::json::parse(out.str());
}

TEST(Json, IsReadBackAndRefusedIfDamaged) {
  const TemporaryDirectory directory;
  const Profile profile = LoadProfile(directory.Write("report", kText), {});
  const nlohmann::json whole = Written(ToJson(profile));
  EXPECT_EQ(whole["report"]["damaged"], std::vector<int>{7});
  EXPECT_EQ(whole["totals"], (nlohmann::json{{"bytes", 5000},
                                             {"groups", 3},
                                             {"announcedGroups", 2},
                                             {"blocks", 4},
                                             {"listedBytes", 104},
                                             {"listedGroups", 2},
                                             {"unlistedBytes", 4896},
                                             {"unlistedGroups", 1},
                                             {"javaBytes", 64},
                                             {"javaGroups", 1}}));
  const auto load = [&](const nlohmann::json& document) {
    return LoadDocument(directory.Write("read.json", document.dump()));
  };
  nlohmann::json again = Written(ToJson(load(whole).profile));
  again["report"]["path"] = whole["report"]["path"];
  EXPECT_EQ(again, whole);

  const nlohmann::json compared = Written(DiffToJson(profile, profile));
  EXPECT_EQ(load(compared).base->path, profile.path);
  const auto expect_damaged = [&](nlohmann::json document, const char* pointer,
                                  const nlohmann::json& value) {
    document[nlohmann::json::json_pointer(pointer)] = value;
    EXPECT_THROW(load(document), UserError) << pointer << " " << value;
  };
  using Case = std::pair<const char*, nlohmann::json>;
  for (const auto& [pointer, value] :
       {Case{"/groups/0/stack/0", 5}, Case{"/groups/0/stack/0", -1}, Case{"/frames/0/library", 2},
        Case{"/groups/0/total", -5}, Case{"/groups/0/total", "5"}, Case{"/groups/0/kind", "other"},
        Case{"/frames", 7}, Case{"/totals", nullptr}, Case{"/version", 2},
        Case{"/libraries/0/found", 1}}) {
    expect_damaged(whole, pointer, value);
  }
  for (const char* pointer : {"/base/totals", "/groups/1/before", "/groups/0/status"}) {
    expect_damaged(compared, pointer, "other");
  }
}

}  // namespace
}  // namespace memleak
