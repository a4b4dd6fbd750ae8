// Grouping and export of the live blocks.
#include "tests/records/fake_capture.h"

namespace {

class LeakInfoTest : public RecordStoreTest {
 protected:
  void Export() {
    list_.clear();
    PointerData::GetInfo(nullptr, &overall_, &info_, &total_, &frames_, &list_);
  }
  std::size_t overall_ = 77, info_ = 77, total_ = 77, frames_ = 77;
  std::vector<RecordStruct> list_;
};

TEST_F(LeakInfoTest, GroupsBySizeZygoteMarkAndPcs) {
  for (std::uint64_t i = 0; i < 3; ++i) Add(0x1000 + i * 0x200, 32, {1, 2});  // three shards
  Add(0x1000 + 64, 64, {1, 2});
  Add(0x1E00, 32, {2, 1});
  zygote_child_ = 1;
  Add(0x3E00, 32, {1, 2});
  Export();
  ASSERT_EQ(list_.size(), 4U);
  EXPECT_EQ(list_[0].size, 32U);
  EXPECT_EQ(list_[0].num, 3U);
  EXPECT_EQ(list_[0].total, 96U);
  EXPECT_EQ(list_[0].frames, (std::vector<std::uint64_t>{1, 2}));
  EXPECT_EQ(list_[1].size, 64U);
  EXPECT_EQ(total_, 96U + 64 + 32 + 32);
  EXPECT_EQ(frames_, 10U);
  EXPECT_EQ(info_, 352U);
  EXPECT_EQ(overall_, 352U * 4);
  // A list that already has groups takes more members, in first-seen order.
  std::vector<ListInfoType> groups;
  PointerData::GetUniqueList(&groups, true);
  PointerData::GetUniqueList(&groups, true);
  ASSERT_EQ(groups.size(), 4U);
  EXPECT_EQ(groups[0].num, 6U);
  EXPECT_EQ(groups[0].pointer, 0x1000U);
}

TEST_F(LeakInfoTest, TimesAreThoseOfTheBacktraceWhateverTheSize) {
  for (std::uint64_t i = 0; i < 40; ++i) Add(0x1000 + i, 40, {1});
  Add(0x2000, 41, {2});
  RecordOf(0x2000, 41)->time = 5;
  Add(0x2001, 42, {2});
  RecordOf(0x2001, 42)->time = 6;
  Add(0x2002, 42, {3});
  RecordOf(0x2002, 42)->time = 7;
  Add(0x2002, 42, {2});  // stack 3 keeps its time of this address, but has no block left
  RecordOf(0x2002, 42)->time = 8;
  Add(0x2002, 42, {4});  // and so does stack 2, which has
  RecordOf(0x2002, 42)->time = 9;
  Export();
  ASSERT_EQ(list_.size(), 4U);
  EXPECT_EQ(list_[0].num, 40U);
  EXPECT_EQ(list_[0].times.size(), 30U);
  for (const RecordStruct& record : list_) {
    if (record.frames[0] != 2) continue;
    std::vector<std::int64_t> times = record.times;
    std::sort(times.begin(), times.end());
    EXPECT_EQ(times, (std::vector<std::int64_t>{5, 6, 8})) << record.size;
  }
}

TEST_F(LeakInfoTest, NothingToExportLeavesTheOutputsAlone) {
  Export();
  EXPECT_EQ(std::vector({overall_, info_, total_, frames_}), std::vector<std::size_t>(4, 77));
  EXPECT_EQ(LogLines().back(), "6 MemLeak.Native: list size err or listout null 0, ignore");
  Add(0x1000, 40, {1});
  PointerData::GetInfo(nullptr, &overall_, &info_, &total_, &frames_, nullptr);
  EXPECT_EQ(LogLines().back(), "6 MemLeak.Native: list size err or listout null 1, ignore");
  EXPECT_EQ(record_key.Get(), nullptr);
}

TEST_F(LeakInfoTest, RefusesMoreThanSixtyThousandGroups) {
  for (std::uint64_t i = 0; i < PointerData::kMaxGroups; ++i) Add(i * 16, 48, {i, 1});
  Export();
  EXPECT_EQ(list_.size(), PointerData::kMaxGroups);
  Add(0x10000000, 48, {PointerData::kMaxGroups, 1});
  Export();
  EXPECT_TRUE(list_.empty());
  EXPECT_EQ(LogLines().back(), "6 MemLeak.Native: list size err or listout null 60001, ignore");
}

TEST_F(LeakInfoTest, RecordsWithoutUsableBacktraceAreLeftOut) {
  Add(0x1000, 40, {});
  Add(0x2000, 40, {1});
  BacktraceOf(0x2000, 40)->references = 0;
  Add(0x3000, 40, {2});
  Export();
  EXPECT_EQ(list_.size(), 1U);
  Remove(0x2000, 40);
  EXPECT_EQ(LogLines(), (std::vector<std::string>{
                            "6 MemLeak.Native: GetUniqueList:frameInfo is null, hashIndex = 1",
                            "6 MemLeak.Native: Pointer 0x2000 hashIndex 2 does not exist.",
                            "6 MemLeak.Native: GetUniqueList:frameInfo is null, hashIndex = 2",
                            "6 MemLeak.Native: hashIndex 2 does not have matching frame data."}));
}

TEST_F(LeakInfoTest, BacktraceSizeProperty) {
  const std::pair<const char*, std::uint32_t> cases[] = {{"64", 64},
                                                         {"12a", 64},
                                                         {"", 64},
                                                         {"-1", 64},
                                                         {"2147483648", 64},
                                                         {"007", 7},
                                                         {"2147483647", 2147483647}};
  for (const auto& [value, expected] : cases) {
    fake_property = value;
    EXPECT_EQ(PointerData::GetMaxBacktraceNum(), expected) << value;
  }
  SetBacktraceSize(kDefaultBacktraceSize);
}

}  // namespace
