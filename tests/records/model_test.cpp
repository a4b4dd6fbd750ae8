// The record store against a literal model of it: plain maps, one operation after the other.
//
// Both get the same random operations and must give the same answers through the public reads.
#include <algorithm>
#include <ctime>
#include <map>
#include <random>
#include <tuple>

#include "tests/records/fake_capture.h"

namespace {

using Pcs = std::vector<std::uint64_t>;

std::time_t fake_now = 1'000'000;

/// One set of the model. Indexes 0 and 1 name no backtrace.
struct ModelSet {
  struct Pointer {
    std::uint64_t size;
    std::uint64_t index;
  };
  struct Backtrace {
    std::uint64_t references;
    Pcs pcs;
    std::map<std::uint64_t, std::int64_t> times;
  };
  std::map<std::uint64_t, Pointer> pointers;
  std::map<Pcs, std::uint64_t> key_to_index;
  std::map<std::uint64_t, Backtrace> frames;
  std::uint64_t next_index = 2;
  std::map<std::uint64_t, Pointer> java_pointers;
  std::map<Pcs, std::uint64_t> unwind_key_to_index;
  std::map<std::uint64_t, Backtrace> unwind_frames;
  std::uint64_t next_unwind_index = 2;
};

/// What a heap entry or a proxy passes on about one block, and what a capture would find.
struct Block {
  std::uint64_t address;
  std::size_t size;
  std::size_t usable_size;
  Pcs pcs;
  Pcs java;
};

/// Size, zygote mark, pcs.
using GroupKey = std::tuple<std::uint64_t, bool, Pcs>;
struct Group {
  std::uint64_t num = 0;
  std::vector<std::int64_t> times;
  bool operator==(const Group& other) const { return num == other.num && times == other.times; }
};

class Model {
 public:
  bool native = true;
  const std::uint32_t* zygote_child = nullptr;
  bool start[2] = {true, false};
  bool ever[2] = {true, false};

  void Clear() { sets_.assign(40, ModelSet()); }

  void Add(const Block& block, bool mapping) {
    ModelSet& set = SetOf(block, mapping);
    const std::uint64_t index = AddBacktrace(set, block);
    set.pointers[block.address] = {EncodedSize(block.size), index};
  }

  void Remove(const Block& block, bool mapping) {
    if (!ever[0] && !ever[1]) return;
    ModelSet& set = SetOf(block, mapping);
    const auto found = set.pointers.find(block.address);
    if (found == set.pointers.end()) return;
    const std::uint64_t index = found->second.index;
    set.pointers.erase(found);
    RemoveBacktrace(set, index, block.address);
    const bool any_empty = std::any_of(sets_.begin(), sets_.end(),
                                       [](const ModelSet& each) { return each.pointers.empty(); });
    for (const int family : {0, 1}) {
      if (!start[family] && ever[family] && any_empty) ever[family] = false;
    }
  }

  Pcs Frames(const Block& block) {
    const ModelSet& set = SetOf({block.address, 0, block.usable_size, {}, {}}, false);
    const auto found = set.pointers.find(block.address);
    if (found == set.pointers.end() || found->second.index <= 1) return {};
    return set.frames.at(found->second.index).pcs;
  }

  /// Times as they may be exported: all of them, in ascending order.
  std::map<GroupKey, Group> Groups() const {
    std::map<GroupKey, Group> groups;
    for (const ModelSet& set : sets_) {
      for (const auto& [address, pointer] : set.pointers) {
        if (pointer.index <= 1) continue;
        const ModelSet::Backtrace& backtrace = set.frames.at(pointer.index);
        Group& group = groups[{pointer.size & 0x7FFFFFFF, (pointer.size >> 31 & 1) != 0,
                               backtrace.pcs}];
        if (group.num++ != 0) continue;
        for (const auto& [member, time] : backtrace.times) group.times.push_back(time);
        std::sort(group.times.begin(), group.times.end());
      }
    }
    return groups;
  }

  /// Counts of the Java-native groups; the key's pcs are rel_pcs.
  std::map<GroupKey, std::uint64_t> JavaGroups() const {
    std::map<GroupKey, std::uint64_t> groups;
    for (const ModelSet& set : sets_) {
      for (const auto& [address, pointer] : set.java_pointers) {
        const ModelSet::Backtrace& backtrace = set.unwind_frames.at(pointer.index);
        groups.emplace(GroupKey{pointer.size & 0x7FFFFFFF, (pointer.size >> 31 & 1) != 0,
                                backtrace.pcs},
                       backtrace.references);
      }
    }
    return groups;
  }

  std::uint64_t RecordsOf(std::size_t set) const { return sets_[set].pointers.size(); }

 private:
  ModelSet& SetOf(const Block& block, bool mapping) {
    const std::uint64_t size = native && !mapping ? block.usable_size : block.size;
    const std::size_t size_class = size < 32 ? 0 : size < 40 ? 1 : size < 80 ? 2 : size < 128 ? 3 : 4;
    return sets_[block.address / (4096 / 8) % 8 * 5 + size_class];
  }

  std::uint64_t EncodedSize(std::size_t size) const {
    if (zygote_child == nullptr) return 0;
    return *zygote_child != 0 ? size | std::uint64_t{1} << 31 : size;
  }

  std::uint64_t AddBacktrace(ModelSet& set, const Block& block) {
    if (block.pcs.empty()) return 1;
    const auto [entry, is_new] = set.key_to_index.emplace(block.pcs, set.next_index);
    if (is_new) set.frames[set.next_index++] = {0, block.pcs, {}};
    ModelSet::Backtrace& backtrace = set.frames.at(entry->second);
    ++backtrace.references;
    backtrace.times.emplace(block.address, fake_now);
    if (!block.java.empty()) AddJava(set, block);
    return entry->second;
  }

  void AddJava(ModelSet& set, const Block& block) {
    const auto [entry, is_new] =
        set.unwind_key_to_index.emplace(block.java, set.next_unwind_index);
    if (is_new) set.unwind_frames[set.next_unwind_index++] = {0, block.java, {}};
    ++set.unwind_frames.at(entry->second).references;
    set.java_pointers[block.address] = {EncodedSize(block.size), entry->second};
  }

  static void RemoveBacktrace(ModelSet& set, std::uint64_t index, std::uint64_t address) {
    if (index <= 1) return;
    ModelSet::Backtrace& backtrace = set.frames.at(index);
    backtrace.times.erase(address);
    if (--backtrace.references != 0) return;
    set.key_to_index.erase(backtrace.pcs);
    set.frames.erase(index);
  }

  std::vector<ModelSet> sets_ = std::vector<ModelSet>(40);
};

/// How the random operations of one run are spread.
struct Run {
  std::uint64_t seed;
  int steps;
  std::uint64_t addresses;
  std::uint64_t stacks;
  /// Steps from one comparison of everything to the next.
  int compare_every;
};

class RecordStoreModelTest : public RecordStoreTest, public ::testing::WithParamInterface<Run> {
 protected:
  std::uint64_t Below(std::uint64_t bound) { return random_() % bound; }

  /// A block at a random address. Its usable size mostly stays what it was, as a real block's does.
  Block RandomBlock() {
    Block block;
    block.address = 0x7000'0000'0000 + Below(GetParam().addresses) * 48;
    std::size_t& usable = usable_[block.address];
    if (usable == 0 || Below(8) == 0) usable = Below(200) + 1;
    block.usable_size = usable;
    block.size = Below(16) == 0 ? Below(1 << 20) : usable;
    // Stacks of one to nine pcs. Those of five and more have one hash for many numbers.
    const std::uint64_t stack = Below(GetParam().stacks);
    if (Below(30) != 0) block.pcs = {stack, stack, stack % 7};
    for (std::uint64_t i = 0; i < stack % 6 && !block.pcs.empty(); ++i) block.pcs.push_back(i);
    if (Below(20) == 0) block.java = {Below(5), Below(2)};
    return block;
  }

  void Change(bool add, bool mapping) {
    const Block block = RandomBlock();
    CurrentScript() = {block.pcs, {}, block.usable_size};
    for (const std::uint64_t rel_pc : block.java) {
      CurrentScript().java_frames.emplace_back().rel_pc = rel_pc;
    }
    // The exported entries pass no size when a heap block goes.
    const std::size_t size = add || mapping ? block.size : 0;
    if (add) {
      model_.Add(block, mapping);
      mapping ? data_.AddMapping(At(block.address), size) : data_.Add(At(block.address), size);
    } else {
      model_.Remove({block.address, size, block.usable_size, {}, {}}, mapping);
      mapping ? data_.RemoveMapping(At(block.address), size)
              : data_.Remove(At(block.address), size);
    }
  }

  void SwitchSomething() {
    switch (Below(6)) {
      case 0: {
        constexpr MemTrackType kKinds[] = {NATIVE, MMAP, ION, GPU};
        mem_track_type = kKinds[Below(4)];
        break;
      }
      case 1: {
        const bool start = Below(2) == 0;
        const bool ever = start || Below(4) != 0;
        const bool native = Below(2) == 0;
        native ? control_->ConfigHookStatus(start, ever) : control_->ConfigPltHookStatus(start, ever);
        model_.start[native ? 0 : 1] = start;
        model_.ever[native ? 0 : 1] = ever;
        break;
      }
      case 2:
        zygote_child_ = Below(3) == 0 ? 1 : 0;
        break;
      case 3:
        model_.zygote_child = Below(8) == 0 ? nullptr : &zygote_child_;
        control_->set_zygote_child(
            model_.zygote_child != nullptr ? reinterpret_cast<bool*>(&zygote_child_) : nullptr);
        break;
      case 4:
        fake_now += static_cast<std::time_t>(Below(100)) - 20;
        break;
      default:
        if (Below(40) == 0) {
          data_.Initialize();
          model_.Clear();
        }
    }
    model_.native = mem_track_type == NATIVE;
  }

  void CompareOne() {
    const Block block = RandomBlock();
    CurrentScript().usable_size = block.usable_size;
    std::uintptr_t frames[16] = {};
    const std::size_t room = Below(16);
    const std::size_t count = PointerData::GetFrames(At(block.address), frames, room);
    Pcs expected = model_.Frames(block);
    expected.resize(std::min(expected.size(), room));
    ASSERT_EQ(Pcs(frames, frames + count), expected);
    const bool flags[] = {control_->GetHookEverStarted(), control_->GetPltHookEverStarted()};
    ASSERT_EQ(flags[0], model_.ever[0]);
    ASSERT_EQ(flags[1], model_.ever[1]);
  }

  void CompareAll() {
    std::size_t sizes[4] = {};
    std::vector<RecordStruct> list;
    PointerData::GetInfo(nullptr, &sizes[0], &sizes[1], &sizes[2], &sizes[3], &list);
    std::map<GroupKey, Group> expected = model_.Groups();
    ASSERT_EQ(list.size(), expected.size());
    // The export keeps the size and not the zygote mark, so both halves are taken together.
    std::multimap<std::pair<std::uint64_t, Pcs>, Group> by_size;
    std::uint64_t total = 0;
    for (const auto& [key, group] : expected) {
      by_size.emplace(std::pair(std::get<0>(key), std::get<2>(key)), group);
      total += std::get<0>(key) * group.num;
    }
    ASSERT_EQ(sizes[2], total);
    for (std::size_t i = 0; i < list.size(); ++i) {
      const RecordStruct& record = list[i];
      if (i > 0) {
        ASSERT_GE(std::pair(list[i - 1].total, list[i - 1].size), std::pair(record.total, record.size));
      }
      const auto [first, last] = by_size.equal_range({record.size, record.frames});
      const auto match = std::find_if(first, last, [&](const auto& entry) {
        return IsExportOf(record, entry.second);
      });
      ASSERT_NE(match, last) << "size " << record.size << " num " << record.num;
      by_size.erase(match);
    }
    std::vector<UnwindListInfoType> java;
    PointerData::GetJavaNativeStackInfo(&java, true);
    std::map<GroupKey, std::uint64_t> java_groups;
    for (const UnwindListInfoType& element : java) {
      Pcs rel_pcs;
      for (const auto& frame : element.unwind_info->frames) rel_pcs.push_back(frame.rel_pc);
      java_groups[{element.size, element.zygote_child, rel_pcs}] = element.num;
    }
    ASSERT_EQ(java_groups, model_.JavaGroups());
  }

  /// At most 30 of the times are exported, any of them.
  static bool IsExportOf(const RecordStruct& record, const Group& group) {
    std::vector<std::int64_t> times = record.times;
    std::sort(times.begin(), times.end());
    return record.num == group.num && record.total == record.size * record.num &&
           times.size() == std::min<std::size_t>(group.times.size(), 30) &&
           std::includes(group.times.begin(), group.times.end(), times.begin(), times.end());
  }

  Model model_;
  std::mt19937_64 random_{GetParam().seed};
  std::map<std::uint64_t, std::size_t> usable_;
};

TEST_P(RecordStoreModelTest, GivesTheModelsAnswers) {
  model_.zygote_child = &zygote_child_;
  for (int step = 0; step < GetParam().steps; ++step) {
    if (Below(60) == 0) {
      SwitchSomething();
    } else {
      Change(Below(2) == 0, Below(4) == 0);
    }
    ASSERT_NO_FATAL_FAILURE(CompareOne()) << "step " << step;
    if (step % GetParam().compare_every == 0) {
      ASSERT_NO_FATAL_FAILURE(CompareAll()) << "step " << step;
    }
  }
  mem_track_type = NATIVE;
}

INSTANTIATE_TEST_SUITE_P(Runs, RecordStoreModelTest,
                         ::testing::Values(Run{1, 3000, 40, 12, 1},        // everything collides
                                           Run{2, 40000, 300, 40, 50},     //
                                           Run{3, 120000, 5000, 900, 4000},  // tables grow
                                           Run{4, 150000, 60000, 9, 30000}));

}  // namespace

extern "C" std::time_t __wrap_time(std::time_t* result) {
  if (result != nullptr) *result = fake_now;
  return fake_now;
}
