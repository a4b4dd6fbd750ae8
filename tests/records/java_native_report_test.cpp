// Blocks with Java-native stacks: grouping over real sets, order and text.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "tracker/MemTrackControl.h"

namespace {

std::unique_ptr<PointerSet[]> all_sets;
/// Counts heap calls of threads that are not marked as inside the record store.
std::atomic<bool> watch_heap{false};
std::atomic<int> unmarked_heap_calls{0};

void ObserveHeapCall() {
  if (watch_heap && pthread_getspecific(record_key) == nullptr) ++unmarked_heap_calls;
}

}  // namespace

pthread_key_t record_key;
PointerSet* PointerData::sets() {
  return all_sets.get();
}

// Not inlined: seen through, malloc and free look mismatched with new and delete to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ObserveHeapCall();
  void* const memory = std::malloc(size);
  if (memory == nullptr) std::abort();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  ObserveHeapCall();
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace {

class JavaNativeReportTest : public testing::Test {
 protected:
  void SetUp() override {
    static const int created = pthread_key_create(&record_key, nullptr);
    ASSERT_EQ(created, 0);
    all_sets = std::make_unique<PointerSet[]>(PointerData::kSetCount);
    LogLines().clear();
  }

  static std::vector<unwindstack::FrameData> Stack(const std::vector<std::uint64_t>& rel_pcs) {
    std::vector<unwindstack::FrameData> frames(rel_pcs.size());
    for (std::size_t i = 0; i < rel_pcs.size(); ++i) frames[i].rel_pc = rel_pcs[i];
    return frames;
  }
  /// Files a stack as record makers do, under its lock; `index` is 2 or more.
  static void AddStack(std::size_t set, std::uint64_t index, std::uint64_t references,
                       std::vector<unwindstack::FrameData> frames) {
    const std::lock_guard<std::mutex> lock(all_sets[set].unwind_mutex);
    all_sets[set].SyncUnwindFrames();
    all_sets[set].unwind_frames[index] = {references, std::move(frames)};
  }
  static void AddBlock(std::size_t set, std::uint64_t pointer, std::uint64_t size,
                       std::uint64_t index) {
    const std::lock_guard<std::mutex> lock(all_sets[set].java_pointer_mutex);
    all_sets[set].SyncJavaPointers();
    all_sets[set].java_pointers[pointer] = {size, index};
  }
  /// "pointer num size zygote" of every element.
  static std::vector<std::string> Elements(const std::vector<UnwindListInfoType>& list) {
    std::vector<std::string> texts;
    for (const UnwindListInfoType& element : list) {
      texts.push_back(std::to_string(element.pointer) + " " + std::to_string(element.num) + " " +
                      std::to_string(element.size) + (element.zygote_child ? " child" : ""));
    }
    return texts;
  }
  static std::vector<std::string> Collect(bool only_with_backtrace) {
    std::vector<UnwindListInfoType> list;
    PointerData::GetJavaNativeStackInfo(&list, only_with_backtrace);
    return Elements(list);
  }
};

TEST_F(JavaNativeReportTest, SectionText) {
  std::vector<unwindstack::FrameData> named = Stack({0xABC, 0});
  named[0].function_name = "android::uirenderer::draw()";
  AddStack(0, 2, 3, named);
  AddBlock(0, 0x100, 16, 2);
  std::vector<std::uint64_t> deep(101, 0x1f);
  AddStack(39, 2, 1, Stack(deep));
  AddBlock(39, 0x200, 5, 2);
  AddBlock(39, 0x300, 1000, 1);  // without a stack, so not in the text

  std::ostringstream out;
  PointerData::ReportJavaNativeNodes(out);
  const std::string text = out.str();
  const std::string start =
      "==============================Java-Native Stack==============================\n"
      "sz 16 48 num 3\n"
      "#00 rel_pc abc android::uirenderer::draw()\n"
      "#01 rel_pc 0 \n"
      "sz 5 5 num 1\n"
      "#00 rel_pc 1f \n";
  EXPECT_EQ(text.substr(0, start.size()), start);
  EXPECT_NE(text.find("\n#09 rel_pc 1f \n#10 rel_pc 1f \n"), std::string::npos);
  const std::string end = "\n#99 rel_pc 1f \n#100 rel_pc 1f \n";
  EXPECT_EQ(text.substr(text.size() - end.size()), end);
  EXPECT_EQ(out.fill(), '0');
  out << 255;
  EXPECT_EQ(out.str().substr(text.size()), "255");
}

TEST_F(JavaNativeReportTest, NothingRecordedOrNoTables) {
  std::ostringstream out;
  PointerData::ReportJavaNativeNodes(out);
  all_sets.reset();
  PointerData::ReportJavaNativeNodes(out);
  const std::string header =
      "==============================Java-Native Stack==============================\n";
  EXPECT_EQ(out.str(), header + header);
}

TEST_F(JavaNativeReportTest, OneElementForEachSizeMarkAndStack) {
  AddStack(0, 2, 5, Stack({1, 2, 3}));
  AddBlock(0, 0x10, 100, 2);
  AddStack(1, 2, 9, Stack({1, 2, 3}));
  AddBlock(1, 0x20, 100, 2);                    // as the first one: dropped, count included
  AddBlock(2, 0x30, 100 | kZygoteChildBit, 2);  // other mark
  AddStack(2, 2, 1, Stack({1, 2, 3}));
  AddStack(3, 2, 1, Stack({1, 2}));
  AddBlock(3, 0x40, 99, 2);  // other size and stack
  AddStack(4, 2, 2, Stack({3, 2, 1}));
  AddBlock(4, 0x50, 100, 2);  // the same pcs in another order
  AddStack(5, 2, 4, Stack({1, 2, 3}));
  AddBlock(5, 0x60, 10, 2);  // other size: the references of its own set's stack
  EXPECT_EQ(Collect(true), (std::vector<std::string>{"16 5 100", "80 2 100", "48 1 100 child",
                                                     "64 1 99", "96 4 10"}));

  // What the caller's list holds already takes part.
  std::vector<UnwindListInfoType> list;
  PointerData::GetJavaNativeStackInfo(&list, true);
  PointerData::GetJavaNativeStackInfo(&list, true);
  EXPECT_EQ(list.size(), 5u);
}

TEST_F(JavaNativeReportTest, BlocksWithoutAStack) {
  AddBlock(0, 0x10, 30, 0);
  AddBlock(1, 0x20, 20, 1);
  AddBlock(2, 0x30, 10, 7);  // never filed
  AddStack(3, 8, 0, Stack({1}));
  AddBlock(3, 0x40, 9, 8);
  AddStack(4, 9, 1, {});
  AddBlock(4, 0x50, 8, 9);
  EXPECT_EQ(Collect(false),
            (std::vector<std::string>{"16 1 30", "32 1 20", "48 1 10", "64 1 9", "80 1 8"}));
  EXPECT_EQ(LogLines(), (std::vector<std::string>{
                            "6 MemLeak.Native: Pointer 0x30 hashIndex 7 does not exist.",
                            "6 MemLeak.Native: Pointer 0x40 hashIndex 8 does not exist.",
                            "6 MemLeak.Native: Pointer 0x50 hashIndex 9 does not exist."}));
  EXPECT_TRUE(all_sets[3].unwind_frames.empty());
  EXPECT_TRUE(all_sets[4].unwind_frames.empty());
  EXPECT_EQ(Collect(true), (std::vector<std::string>{"32 1 20", "48 1 10", "64 1 9", "80 1 8"}));
}

TEST_F(JavaNativeReportTest, LargerProductsFirstThenLargerSizes) {
  std::vector<UnwindListInfoType> list;
  const std::uint64_t num_and_size[][2] = {{2, 10}, {1, 20}, {10, 2}, {3, 7}, {1, 1}};
  for (const auto& [num, size] : num_and_size) {
    UnwindListInfoType element;
    element.num = num;
    element.size = size;
    list.push_back(element);
  }
  PointerData::SortJavaNativeListByTotalAllocation(&list);
  EXPECT_EQ(Elements(list),
            (std::vector<std::string>{"0 3 7", "0 1 20", "0 2 10", "0 10 2", "0 1 1"}));
}

/// The plain scan that the grouping stands for.
std::vector<UnwindListInfoType> PlainScan() {
  std::vector<UnwindListInfoType> list;
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) {
    for (const auto& [pointer, record] : all_sets[i].java_pointers) {
      UnwindFrameInfoType& info = all_sets[i].unwind_frames.at(record.hash_index);
      const bool known = std::any_of(list.begin(), list.end(), [&](const auto& element) {
        const auto& frames = element.unwind_info->frames;
        return element.size == record.size &&
               std::equal(frames.begin(), frames.end(), info.frames.begin(), info.frames.end(),
                          [](const auto& a, const auto& b) { return a.rel_pc == b.rel_pc; });
      });
      if (!known) list.push_back({pointer, info.references, record.size, false, &info});
    }
  }
  PointerData::SortJavaNativeListByTotalAllocation(&list);
  return list;
}

TEST_F(JavaNativeReportTest, IndexGivesWhatThePlainScanGives) {
  std::mt19937_64 random(1);
  for (std::size_t set = 0; set < PointerData::kSetCount; ++set) {
    for (std::uint64_t index = 2; index < 32; ++index) {
      std::vector<std::uint64_t> rel_pcs(1 + random() % 3);
      for (std::uint64_t& rel_pc : rel_pcs) rel_pc = random() % 3;
      AddStack(set, index, 1 + random() % 4, Stack(rel_pcs));
    }
    for (std::uint64_t block = 0; block < 200; ++block) {
      AddBlock(set, random(), 8 * (random() % 4), 2 + random() % 30);
    }
  }
  const std::vector<std::string> collected = Collect(true);
  EXPECT_GT(collected.size(), 100u);
  EXPECT_EQ(collected, Elements(PlainScan()));
}

TEST_F(JavaNativeReportTest, GroupingStaysLinear) {
  // A plain scan would compare 60,000 blocks with up to 60,000 groups: minutes instead of a blink.
  constexpr std::uint64_t kBlocks = 60'000;
  for (std::uint64_t i = 0; i < kBlocks; ++i) {
    AddStack(i % 40, 2 + i, 1, Stack({1, 2, 3, 4, 5, 6, 7, i}));
    AddBlock(i % 40, i, 64, 2 + i);
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Collect(true).size(), kBlocks);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(JavaNativeReportTest, OwnHeapCallsStayOutOfTheRecords) {
  for (std::uint64_t i = 0; i < 100; ++i) {
    AddStack(0, 2 + i, 1, Stack({i}));
    AddBlock(0, i, 64, 2 + i);
  }
  all_sets[1].unwind_frames[2] = {1, Stack({1})};
  ++table_generation;
  AddStack(0, 2, 1, Stack({1}));
  AddBlock(0, 1, 64, 2);
  // Set 1 is left behind the generation: the reader empties it, and so frees under its locks.
  std::vector<UnwindListInfoType> list;
  for (void* const mark : {static_cast<void*>(nullptr), MemTrackControl::kMark}) {
    pthread_setspecific(record_key, mark);
    watch_heap = true;
    PointerData::GetJavaNativeStackInfo(&list, true);
    watch_heap = false;
    EXPECT_EQ(unmarked_heap_calls, 0);
    EXPECT_EQ(pthread_getspecific(record_key), mark);
    EXPECT_EQ(list.size(), 1u);
  }
  pthread_setspecific(record_key, nullptr);
  EXPECT_TRUE(all_sets[1].unwind_frames.empty());
}

TEST_F(JavaNativeReportTest, ReadsWhileOthersRecordAndClear) {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> recorded{0};
  std::thread recorder([&] {
    for (std::uint64_t i = 0; !stop; recorded = ++i) {
      AddStack(i % 40, 2 + i % 50, 1, Stack({i % 50, 1}));
      AddBlock(i % 40, i % 1000, 64, 2 + i % 50);
    }
  });
  std::thread clearer([&] {
    while (!stop) {
      {
        const std::lock_guard<std::mutex> lock(InitialiseLock());
        ++table_generation;
      }
      std::this_thread::yield();
    }
  });
  for (int report = 0; report < 100 || recorded < 10'000; ++report) {
    const std::lock_guard<std::mutex> lock(InitialiseLock());
    std::ostringstream out;
    PointerData::ReportJavaNativeNodes(out);
    EXPECT_NE(out.str().find("Java-Native Stack"), std::string::npos);
  }
  stop = true;
  recorder.join();
  clearer.join();
}

}  // namespace
