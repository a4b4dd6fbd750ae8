// Blocks with Java-native stacks: grouping over real sets, order and text.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/report_text.h"
#include "tracker/MemTrackControl.h"

namespace {

std::unique_ptr<PointerSet[]> all_sets;
std::atomic<bool> watch_heap{false};

}  // namespace

PointerSet* PointerData::sets() {
  return all_sets.get();
}

// Not inlined: seen through, malloc and free look mismatched with new and delete to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size) {
  return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  // Inside the tracked library a free outside the record store would take locks of the sets.
  if (watch_heap && record_key.Get() == nullptr) std::abort();
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}

namespace {

class JavaNativeReportTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(MemTrackControl::CreateInstance()->DebugDisableInit());
    all_sets = std::make_unique<PointerSet[]>(PointerData::kSetCount);
    LogLines().clear();
  }

  static std::vector<unwindstack::FrameData> Stack(const std::vector<std::uint64_t>& rel_pcs) {
    std::vector<unwindstack::FrameData> frames(rel_pcs.size());
    for (std::size_t i = 0; i < rel_pcs.size(); ++i) frames[i].rel_pc = rel_pcs[i];
    return frames;
  }
  /// Files a stack as threads that record do: a known one gets the references, never new frames.
  static void AddStack(std::size_t set, std::uint64_t index, std::uint64_t references,
                       std::vector<unwindstack::FrameData> frames) {
    const std::lock_guard<SetMutex> lock(all_sets[set].unwind_mutex);
    all_sets[set].SyncUnwindFrames();
    const auto [entry, inserted] = all_sets[set].unwind_frames.try_emplace(index);
    entry->second.references += references;
    if (inserted) entry->second.frames = std::move(frames);
  }
  static void AddBlock(std::size_t set, std::uint64_t pointer, std::uint64_t size,
                       std::uint64_t index) {
    const std::lock_guard<SetMutex> lock(all_sets[set].java_pointer_mutex);
    all_sets[set].SyncJavaPointers();
    all_sets[set].java_pointers[pointer] = {size, index};
  }
  static std::vector<UnwindListInfoType> Collect(bool only_with_backtrace) {
    std::vector<UnwindListInfoType> list;
    PointerData::GetJavaNativeStackInfo(&list, only_with_backtrace);
    return list;
  }
};

TEST_F(JavaNativeReportTest, SectionText) {
  std::vector<unwindstack::FrameData> named = Stack({0xABC, 0});
  named[0].function_name = "android::uirenderer::draw()";
  AddStack(0, 2, 3, named);
  AddBlock(0, 0x100, 16, 2);
  AddStack(39, 2, 1, Stack(std::vector<std::uint64_t>(101, 0x1f)));
  AddBlock(39, 0x200, 5, 2);
  AddBlock(39, 0x300, 1000, 1);  // without a stack, so not in the text
  std::string expected =
      "==============================Java-Native Stack==============================\n"
      "sz 16 48 num 3\n#00 rel_pc abc android::uirenderer::draw()\n#01 rel_pc 0 \n"
      "sz 5 5 num 1\n";
  for (int i = 0; i <= 100; ++i) {
    expected += (i < 10 ? "#0" : "#") + std::to_string(i) + " rel_pc 1f \n";
  }
  ReportText out;
  PointerData::ReportJavaNativeNodes(out);
  std::string text(out.size(), ' ');
  out.CopyStart(text.data(), text.size());
  EXPECT_EQ(text, expected);

  all_sets.reset();  // before the first Initialize
  EXPECT_TRUE(Collect(true).empty());
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
    for (; !stop; std::this_thread::yield()) {
      const std::lock_guard<SetMutex> lock(InitialiseLock());
      ++table_generation;
    }
  });
  for (int report = 0; report < 100 || recorded < 10'000; ++report) {
    const std::lock_guard<SetMutex> lock(InitialiseLock());
    ReportText out;
    PointerData::ReportJavaNativeNodes(out);
  }
  stop = true;
  recorder.join();
  clearer.join();

  // With a clear to carry out and a list that grows, all of it inside the record store.
  for (std::uint64_t i = 0; i < 100; ++i) AddBlock(1, i, i, 1);
  all_sets[0].unwind_frames[99] = {1, Stack({1})};
  table_generation += 1;
  for (std::uint64_t i = 0; i < 100; ++i) AddBlock(2, i, i, 1);
  std::vector<UnwindListInfoType> list;
  watch_heap = true;
  PointerData::GetJavaNativeStackInfo(&list, true);
  watch_heap = false;
  EXPECT_EQ(record_key.Get(), nullptr);
  EXPECT_EQ(list.size(), 100u);
}

}  // namespace
