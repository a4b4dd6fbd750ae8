// SPDX-License-Identifier: Apache-2.0
// Compares the record store with a model: random operations on both, then the same answers. The
// model keeps its tables in plain maps, searches all of them for every answer, and has no locks.
#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <tuple>

#include "platform/linux/environment.h"
#include "records/profile.h"
#include "records/record_store.h"
#include "records/report_text.h"
#include "tests/records/fake_capture.h"
#include "tests/temporary_directory.h"

namespace {

using Pcs = std::vector<std::uint64_t>;

struct Model {
  struct Backtrace {
    std::uint64_t references = 0;
    std::map<std::uint64_t, std::int64_t> times;
  };
  struct Record {
    std::uint64_t size;
    Pcs pcs;  // empty: no backtrace
  };
  struct Set {
    std::map<std::uint64_t, Record> pointers;
    std::map<Pcs, Backtrace> frames;
    std::map<std::uint64_t, Record> java_pointers;
    std::map<Pcs, std::uint64_t> unwind_frames;  // reference counts
  };
  Set sets[40];
  const std::uint32_t* zygote_child = nullptr;
  // For the heap and for the hooked kinds.
  bool start[2] = {true, false};
  bool ever[2] = {true, false};

  Set* Find(std::uint64_t address, std::size_t class_size) {
    if (class_size == SIZE_MAX) return nullptr;
    std::uint64_t size_class = 0;
    for (const std::size_t bound : {32, 40, 80, 128}) size_class += class_size >= bound ? 1 : 0;
    return &sets[address / 512 % 8 * 5 + size_class];
  }
  void Add(std::uint64_t address, std::size_t size, std::size_t class_size, const Pcs& pcs,
           const Pcs& java_pcs, std::int64_t now) {
    Set* set = Find(address, class_size);
    if (set == nullptr) return;
    const std::uint64_t mark = zygote_child != nullptr && *zygote_child != 0 ? kZygoteChildBit : 0;
    const std::uint64_t word = zygote_child == nullptr ? 0 : size | mark;
    if (!pcs.empty()) {
      ++set->frames[pcs].references;
      set->frames[pcs].times.emplace(address, now);
      if (!java_pcs.empty()) {
        ++set->unwind_frames[java_pcs];
        set->java_pointers[address] = {word, java_pcs};
      }
    }
    set->pointers[address] = {word, pcs};
  }
  void Remove(std::uint64_t address, std::size_t class_size) {
    Set* set = Find(address, class_size);
    if ((!ever[0] && !ever[1]) || set == nullptr || set->pointers.count(address) == 0) return;
    const Pcs pcs = set->pointers[address].pcs;
    set->pointers.erase(address);
    if (!pcs.empty()) {
      Backtrace& backtrace = set->frames[pcs];
      backtrace.times.erase(address);
      if (--backtrace.references == 0) set->frames.erase(pcs);
    }
    const auto is_empty = [](const Set& each) { return each.pointers.empty(); };
    if (std::none_of(std::begin(sets), std::end(sets), is_empty)) return;
    for (const int family : {0, 1}) ever[family] = ever[family] && start[family];
  }
  void Clear() {
    for (Set& set : sets) set = {};
  }
};

class StoreModelTest : public RecordStoreTest {
 protected:
  /// One of few stacks. Some have the same five pcs, which are hashed. Some are empty or cut short.
  Pcs RandomStack() {
    const std::uint64_t n = random_() % 40;
    Pcs pcs = n == 0 ? Pcs() : Pcs{n % 3, 1, 2, 3, n % 5, n, n % 2};
    pcs.resize(std::min<std::size_t>(pcs.size(), n == 1 ? 2 : 7));
    return pcs;
  }

  /// One operation on both.
  void Step() {
    const std::uint64_t address = 0x10000 + random_() % blocks_ * 48;
    const bool is_mapping = random_() % 4 == 0;
    constexpr std::size_t kSizes[] = {1, 31, 32, 39, 40, 79, 80, 127, 128, 4096, SIZE_MAX};
    const std::size_t size = kSizes[random_() % std::size(kSizes)];
    const std::size_t usable = kSizes[address / 48 % std::size(kSizes)];
    const std::size_t heap_class = mem_track_type == NATIVE ? usable : size;
    Script& script = CurrentScript();
    script = {RandomStack(), {}, usable};
    Pcs java_pcs;
    if (random_() % 8 == 0) java_pcs = {random_() % 4, random_() % 2 * 0xabc};
    for (const std::uint64_t pc : java_pcs) script.java_frames.emplace_back().rel_pc = pc;
    fake_time = static_cast<std::time_t>(1000 + random_() % 100000);
    Pcs pcs = script.pcs;
    pcs.resize(std::min<std::size_t>(pcs.size(), BacktraceSize()));
    if (random_() % 2 == 0) {
      is_mapping ? data_.AddMapping(At(address), size) : data_.Add(At(address), size);
      model_.Add(address, size, is_mapping ? size : heap_class, pcs, java_pcs, fake_time);
    } else if (is_mapping) {
      data_.RemoveMapping(At(address), size);
      model_.Remove(address, size);
    } else {
      data_.Remove(At(address), 0);
      model_.Remove(address, mem_track_type == NATIVE ? usable : 0);
    }
    CheckFrames(address, usable);
    ASSERT_EQ(control_->GetHookEverStarted(), model_.ever[0]);
    ASSERT_EQ(control_->GetPltHookEverStarted(), model_.ever[1]);
  }

  void CheckFrames(std::uint64_t address, std::size_t usable) {
    const Model::Set* set = model_.Find(address, mem_track_type == NATIVE ? usable : 0);
    Pcs expected;
    if (set != nullptr && set->pointers.count(address) != 0) {
      expected = set->pointers.at(address).pcs;
    }
    std::uintptr_t frames[8] = {};
    const std::size_t most = random_() % 9;
    ASSERT_EQ(PointerData::GetFrames(At(address), frames, most), std::min(most, expected.size()));
    ASSERT_TRUE(std::equal(frames, frames + std::min(most, expected.size()), expected.begin()));
  }

  /// Compares the export. A group has at most 30 times, which are those of its backtrace in the
  /// first set that has a member of the group.
  void CheckExport() {
    struct Group {
      std::uint64_t num = 0;
      std::vector<std::int64_t> times;
    };
    std::map<std::tuple<std::uint64_t, bool, Pcs>, Group> groups;
    for (const Model::Set& set : model_.sets) {
      for (const auto& [address, record] : set.pointers) {
        if (record.pcs.empty()) continue;
        Group& group = groups[{record.size & (kZygoteChildBit - 1),
                               (record.size & kZygoteChildBit) != 0, record.pcs}];
        if (group.num++ != 0) continue;
        for (const auto& [each, time] : set.frames.at(record.pcs).times) {
          group.times.push_back(time);
        }
        std::sort(group.times.begin(), group.times.end());
      }
    }
    std::size_t overall = 77, info = 77, total = 77, frames = 77;
    std::vector<RecordStruct> list;
    PointerData::GetInfo(nullptr, &overall, &info, &total, &frames, &list);
    ASSERT_EQ(list.size(), groups.size());
    std::multimap<std::pair<std::uint64_t, Pcs>, Group> expected;  // the export has no zygote mark
    std::size_t expected_total = 0;
    for (const auto& [key, group] : groups) {
      expected.emplace(std::pair(std::get<0>(key), std::get<2>(key)), group);
      expected_total += std::get<0>(key) * group.num;
    }
    for (std::size_t i = 0; i < list.size(); ++i) {
      std::sort(list[i].times.begin(), list[i].times.end());
      const auto [first, last] = expected.equal_range({list[i].size, list[i].frames});
      const auto same = std::find_if(first, last, [&record = list[i]](const auto& each) {
        const std::vector<std::int64_t>& times = each.second.times;
        return each.second.num == record.num &&
               record.times.size() == std::min(times.size(), PointerData::kMaxTimes) &&
               std::includes(times.begin(), times.end(), record.times.begin(), record.times.end());
      });
      ASSERT_NE(same, last) << list[i].size << " * " << list[i].num;
      expected.erase(same);
      ASSERT_EQ(list[i].total, list[i].size * list[i].num);
      ASSERT_TRUE(i == 0 || std::pair(list[i - 1].total, list[i - 1].size) >=
                                std::pair(list[i].total, list[i].size));
    }
    if (list.empty()) {
      ASSERT_EQ(std::vector({overall, info, total, frames}), std::vector<std::size_t>(4, 77));
    } else {
      ASSERT_EQ(total, expected_total);
      ASSERT_EQ(frames, BacktraceSize());
      ASSERT_EQ(info, frames * 8 + 272);
      ASSERT_EQ(overall, info * list.size());
    }
  }

  /// A line of the profile: the blocks of a stack.
  struct Line {
    std::uint64_t bytes = 0, blocks = 0, min = UINT64_MAX, max = 0;
    std::int64_t newest = INT64_MAX, oldest = INT64_MIN;  // ages

    void Add(const Line& more) {
      bytes += more.bytes;
      blocks += more.blocks;
      min = std::min(min, more.min);
      max = std::max(max, more.max);
      newest = std::min(newest, more.newest);
      oldest = std::max(oldest, more.oldest);
    }
    bool operator==(const Line& other) const {
      return std::tie(bytes, blocks, min, max, newest, oldest) ==
             std::tie(other.bytes, other.blocks, other.min, other.max, other.newest, other.oldest);
    }
  };
  using Profile = std::map<Pcs, Line>;

  Profile ExpectedProfile() {
    Profile profile;
    for (const Model::Set& set : model_.sets) {
      for (const auto& [address, record] : set.pointers) {
        if (record.pcs.empty()) continue;
        const std::uint64_t size = record.size & (kZygoteChildBit - 1);
        const std::int64_t age = fake_time - set.frames.at(record.pcs).times.at(address);
        profile[record.pcs].Add({size, 1, size, size, age, age});
      }
    }
    return profile;
  }

  /// Reads the profile. Stacks with equal pcs are added.
  Profile WrittenProfile() {
    Profile profile;
    Pcs frames, pcs;
    std::istringstream file(directory_.Read(protocol::kProfilePath));
    for (std::string text; std::getline(file, text);) {
      std::istringstream line(text);
      std::string kind, ages;
      line >> kind;
      if (kind == "f") line >> kind >> std::hex >> frames.emplace_back();
      if (kind != "s") continue;
      Line read;
      std::size_t shared = 0;
      line >> read.bytes >> read.blocks >> read.min >> read.max >> read.newest >> read.oldest;
      line >> ages >> shared >> std::hex;
      Pcs inner;
      for (std::size_t number; line >> number;) inner.push_back(frames.at(number - 1));
      inner.insert(inner.end(), pcs.end() - static_cast<std::ptrdiff_t>(shared), pcs.end());
      pcs = inner;
      if (!pcs.empty()) profile[pcs].Add(read);
    }
    return profile;
  }

  /// Compares the profile. Before it is written, all blocks are removed, and other stacks fill the
  /// table.
  void CheckProfile() {
    platform::CaptureValues(directory_.Path("").c_str(), nullptr, nullptr);
    std::size_t ignored = 0;
    const Profile expected = ExpectedProfile();
    {
      profile::Snapshot snapshot;
      PointerData::GetInfo(nullptr, &ignored, &ignored, &ignored, &ignored, nullptr, &snapshot);
      const std::int64_t now = fake_time;
      control_->ConfigHookStatus(true, true);
      for (std::size_t i = 0; i < std::size(model_.sets); ++i) {
        for (const auto& block : model_.sets[i].pointers) {
          data_.RemoveMapping(At(block.first), PointerSet::kSizeBounds[i % 5]);
        }
      }
      for (std::uint64_t i = 0; i < 3000; ++i) {
        Add(0x9000000, 64, {i, 1, 2, 3, 4, 5, 6});
        Remove(0x9000000, 64);
      }
      fake_time = now;
      snapshot.Write(ReportText());
    }
    EXPECT_TRUE(WrittenProfile() == expected);
  }

  /// Compares the blocks with Java-native stacks. Their counts are those of the stack.
  void CheckJavaNative() {
    std::map<std::tuple<std::uint64_t, bool, Pcs>, std::uint64_t> expected, exported;
    for (const Model::Set& set : model_.sets) {
      for (const auto& [address, record] : set.java_pointers) {
        expected.emplace(std::tuple(record.size & (kZygoteChildBit - 1),
                                    (record.size & kZygoteChildBit) != 0, record.pcs),
                         set.unwind_frames.at(record.pcs));
      }
    }
    std::vector<UnwindListInfoType> list;
    PointerData::GetJavaNativeStackInfo(&list, true);
    for (std::size_t i = 0; i < list.size(); ++i) {
      Pcs pcs;
      for (const auto& frame : list[i].unwind_info->frames) pcs.push_back(frame.rel_pc);
      ASSERT_TRUE(exported.emplace(std::tuple(list[i].size, list[i].zygote_child, pcs), list[i].num)
                      .second);
      ASSERT_TRUE(i == 0 || list[i - 1].num * list[i - 1].size >= list[i].num * list[i].size);
    }
    ASSERT_EQ(exported, expected);
    CheckJavaNativeText(list);
  }
  static void CheckJavaNativeText(const std::vector<UnwindListInfoType>& list) {
    std::ostringstream expected;
    const std::string rule(30, '=');
    expected << rule << "Java-Native Stack" << rule << '\n';
    for (const UnwindListInfoType& group : list) {
      expected << "sz " << group.size << ' ' << group.size * group.num << " num " << group.num;
      int number = 0;
      for (const auto& frame : group.unwind_info->frames) {
        expected << "\n#0" << number++ << " rel_pc " << std::hex << frame.rel_pc << std::dec << ' ';
      }
      expected << '\n';
    }
    ReportText out;
    PointerData::ReportJavaNativeNodes(out);
    std::string text(out.size(), ' ');
    out.CopyStart(text.data(), text.size());
    ASSERT_EQ(text, expected.str());
  }

  TemporaryDirectory directory_;
  std::mt19937_64 random_{1};
  std::uint64_t blocks_ = 600;
  Model model_;
};

TEST_F(StoreModelTest, StoreMatchesModel) {
  for (int round = 0; round < 250 && !HasFatalFailure(); ++round) {
    SCOPED_TRACE(round);
    const std::uint64_t what = random_() % 20;
    // Either few blocks, compared after every step, or many blocks.
    const bool every_step = what % 5 == 1;
    if (what == 0 || every_step) {
      data_.Initialize();
      model_.Clear();
    }
    // In a fork handler, which holds every lock: all works except what the lock order forbids.
    const bool in_fork = what < 5;
    if (in_fork) PointerData::PrepareFork();
    mem_track_type = what % 4 == 1 ? static_cast<std::uint32_t>(random_() % 4) : NATIVE;
    zygote_child_ = what % 2 != 0 ? 0x100 : 0;  // outside of the byte that a bool has
    model_.zygote_child = what == 12 ? nullptr : &zygote_child_;
    control_->set_zygote_child(
        reinterpret_cast<bool*>(const_cast<std::uint32_t*>(model_.zygote_child)));
    SetBacktraceSize(what == 8 ? 3 : what == 9 ? UINT32_MAX : protocol::kDefaultDepth);
    current_backtrace_type = what == 9 ? protocol::kUnwindTables : protocol::kUnwindFramePointers;
    for (const int family : {0, 1}) {
      model_.start[family] = what != 7 && random_() % 4 != 0;
      model_.ever[family] = model_.start[family] || random_() % 4 != 0;
    }
    control_->ConfigHookStatus(model_.start[0], model_.ever[0]);
    control_->ConfigPltHookStatus(model_.start[1], model_.ever[1]);
    blocks_ = every_step ? 60 : what < 10 ? 600 : 6000;
    for (int i = 0; i < (every_step ? 100 : 500) && !HasFatalFailure(); ++i) {
      Step();
      if (every_step) CheckExport();
      if (every_step && !in_fork) CheckJavaNative();
    }
    // Calls from inside the store are not recorded.
    record_key.Set(ThreadMark::kInside);
    data_.Add(At(0x10000), 64);
    data_.RemoveMapping(At(0x10000), 64);
    record_key.Set(in_fork ? kHoldsStore : nullptr);
    if (HasFatalFailure()) break;
    CheckExport();
    if (in_fork) PointerData::PostForkParent();
    if (what > 17) {
      if (what == 18) {
        const InsideStore inside;
        const FrameInfoListWithLock locks;
        record_store::backtraces.Hide([](const FrameInfoType& old) { return old.num_frames > 2; });
      }
      // Hidden stacks are added again, as other backtraces.
      Add(0x9000000, 64, {2, 1, 2, 3, 2, 2, 0});
      model_.Add(0x9000000, 64, 64, {2, 1, 2, 3, 2, 2, 0}, {}, fake_time);
      CheckProfile();
      data_.Initialize();
      model_.Clear();
    }
    CheckJavaNative();
  }
  mem_track_type = NATIVE;
  EXPECT_EQ(record_key.Get(), nullptr);
  for (const std::string& line : LogLines()) {
    ASSERT_TRUE(line.find("frameInfo is null, hashIndex = 1") != std::string::npos ||
                line.find("list size err") != std::string::npos)
        << line;
  }
}

}  // namespace
