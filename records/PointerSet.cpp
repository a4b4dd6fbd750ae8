// Emptying of a set's tables, the keys of its Java-native backtraces, and the readers' lock.
#include "records/PointerSet.h"

#include "records/PointerData.h"
#include "records/table_memory.h"

std::atomic<std::uint64_t> table_generation{0};

namespace {

/// The key under which a backtrace keeps the time of an address.
std::uint64_t KeptKey(std::uint64_t address, std::uintptr_t word) {
  const std::uint64_t pcs[] = {address, word};
  return FrameFingerprint({2, pcs});
}

}  // namespace

SetMutex& InitialiseLock() {
  static SetMutex lock;
  return lock;
}

std::size_t UnwindFrameKeyHash::operator()(const UnwindFrameKeyType& key) const {
  std::uint64_t hash = 0;
  const std::uint64_t count = key.num_frames < 5 ? key.num_frames : 5;
  for (std::uint64_t i = 0; i < count; ++i) hash ^= key.frames[i].rel_pc;
  return hash;
}

bool UnwindFrameKeyEqual::operator()(const UnwindFrameKeyType& a,
                                     const UnwindFrameKeyType& b) const {
  if (a.num_frames != b.num_frames) return false;
  for (std::uint64_t i = 0; i < a.num_frames; ++i) {
    if (a.frames[i].rel_pc != b.frames[i].rel_pc) return false;
  }
  return true;
}

void PointerSet::EmptyPointers(std::uint64_t generation) {
  pointers.Clear();
  kept_times.Clear();
  pointers_generation.store(generation, std::memory_order_relaxed);
}

void PointerSet::EmptyFrames(std::uint64_t generation) {
  frames.Clear();
  frames_generation.store(generation, std::memory_order_relaxed);
}

void PointerSet::SyncJavaTables() {
  SyncJavaPointers();
  SyncUnwindFrames();
}

std::uint64_t PointerSet::SyncJavaPointers() {
  const std::uint64_t now = CurrentGeneration();
  if (java_pointers_generation_ != now) {
    java_pointers.clear();
    java_pointers_generation_ = now;
  }
  return now;
}

std::uint64_t PointerSet::SyncUnwindFrames() {
  const std::uint64_t now = CurrentGeneration();
  if (unwind_generation_ != now) {
    unwind_key_to_index.clear();
    unwind_frames.clear();
    cur_unwind_index = BacktraceTable::kFirstIndex;
    unwind_generation_ = now;
  }
  return now;
}

void PointerSet::KeepTime(const Record& record) {
  const std::size_t missing = kept_times.MissingBytes();
  if (missing != 0) {
    // The kernel's alone: the caller holds a lock.
    void* const memory = table_memory::FromKernel(missing);
    if (memory == nullptr) return;
    kept_times.Extend(memory, missing);
  }
  bool inserted = false;
  Record* const kept =
      kept_times.FindOrInsert(KeptKey(record.address, record.backtrace), &inserted);
  if (inserted) *kept = {kept->address, record.address, record.backtrace, record.time};
}

std::int64_t PointerSet::TakeKeptTime(std::uint64_t address, std::uintptr_t word,
                                      std::int64_t otherwise) {
  Record* const kept = kept_times.Find(KeptKey(address, word));
  // Another pair may have the same key; then only one of them has kept its time.
  if (kept == nullptr || kept->size != address || kept->backtrace != word) return otherwise;
  const std::int64_t time = kept->time;
  kept_times.Erase(kept);
  return time;
}

FrameInfoListWithLock::FrameInfoListWithLock(bool held) : held_(held) {
  PointerSet* const sets = PointerData::sets();
  if (sets == nullptr || held_) return;
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].pointer_mutex.lock();
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].frame_mutex.lock();
}

FrameInfoListWithLock::~FrameInfoListWithLock() {
  PointerSet* const sets = PointerData::sets();
  if (sets == nullptr || held_) return;
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].frame_mutex.unlock();
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].pointer_mutex.unlock();
}
