// SPDX-License-Identifier: Apache-2.0
// The records of live blocks: changes to pages and to the directory of regions.
#include "records/record_pages.h"

#include <mutex>

#include "records/set_mutex.h"
#include "records/table_memory.h"

namespace {

/// Memory for the tables of all pages.
table_memory::Pool record_pool;

/// Held while a region is added.
SetMutex directory_lock;

constexpr unsigned kFirstDirectoryLog2 = 8;
/// Size limit of a page's table: all offsets of the page, times a few size classes and tags.
constexpr unsigned kMaxLog2 = kRecordPageBits + 3;
/// Tables of up to 2^3 records (two cache lines) are filled completely, larger ones to 7/8.
constexpr unsigned kFullLog2 = 3;
/// When a page becomes empty, a table of 2^4 records or more is freed for other pages. A smaller
/// table is kept, since the page is likely to be used again.
constexpr unsigned kMinLog2ToFree = 4;

}  // namespace

std::atomic<RecordPages::Directory*> RecordPages::directory_{nullptr};

void RecordPage::LockSlow() {
  SpinUntil([this] { return !IsLocked() && TryLock(); });
}

void RecordPage::StartGeneration(std::uint32_t generation, bool pool_is_locked) {
  FreeRecords(pool_is_locked);
  generation_ = generation;
}

void RecordPage::FreeRecords(bool pool_is_locked) {
  Record* const records = records_.load(std::memory_order_relaxed);
  const std::size_t bytes = sizeof(Record) << log2_capacity_.load(std::memory_order_relaxed);
  records_.store(nullptr, std::memory_order_relaxed);
  log2_capacity_.store(0, std::memory_order_relaxed);
  count_.store(0, std::memory_order_relaxed);
  if (records == nullptr) return;
  pool_is_locked ? record_pool.FreeLocked(records, bytes) : record_pool.Free(records, bytes);
}

bool RecordPage::Grow() {
  Record* const old_records = records_.load(std::memory_order_relaxed);
  const unsigned old_log2 = log2_capacity_.load(std::memory_order_relaxed);
  const unsigned log2 = old_log2 + 1;
  if (log2 > kMaxLog2) return false;
  auto* const records = static_cast<Record*>(record_pool.Allocate(sizeof(Record) << log2));
  if (records == nullptr) return false;
  const std::uint32_t mask = (1U << log2) - 1;
  if (old_records != nullptr) {
    for (std::uint32_t i = 0; i < 1U << old_log2; ++i) {
      if (old_records[i].key == 0) continue;
      std::uint32_t slot = FirstSlot(Spread(old_records[i]), log2);
      while (records[slot].key != 0) slot = (slot + 1) & mask;
      records[slot] = old_records[i];
    }
    record_pool.Free(old_records, sizeof(Record) << old_log2);
  }
  records_.store(records, std::memory_order_relaxed);
  log2_capacity_.store(static_cast<std::uint8_t>(log2), std::memory_order_relaxed);
  return true;
}

bool RecordPage::Insert(const Record& record) {
  const std::uint32_t used = count();
  unsigned log2 = log2_capacity_.load(std::memory_order_relaxed);
  const std::uint32_t limit = log2 <= kFullLog2 ? 1U << log2 : (1U << log2) / 8 * 7;
  if (log2 == 0 || used >= limit) {
    if (!Grow()) return false;
    ++log2;
  }
  Record* const records = records_.load(std::memory_order_relaxed);
  const std::uint32_t mask = (1U << log2) - 1;
  std::uint32_t i = FirstSlot(Spread(record), log2);
  while (records[i].key != 0) i = (i + 1) & mask;
  records[i] = record;
  count_.store(static_cast<std::uint16_t>(used + 1), std::memory_order_relaxed);
  return true;
}

void RecordPage::Erase(Record* record) {
  Record* const records = records_.load(std::memory_order_relaxed);
  const unsigned log2 = log2_capacity_.load(std::memory_order_relaxed);
  const std::uint32_t mask = (1U << log2) - 1;
  auto hole = static_cast<std::uint32_t>(record - records);
  std::uint32_t i = hole;
  for (std::uint32_t probes = 0; probes < mask; ++probes) {
    i = (i + 1) & mask;
    if (records[i].key == 0) break;
    // Move the record into the hole, unless its search begins after the hole.
    const std::uint32_t first = FirstSlot(Spread(records[i]), log2);
    if (((i - first) & mask) < ((i - hole) & mask)) continue;
    records[hole] = records[i];
    hole = i;
  }
  records[hole].key = 0;
  const std::uint32_t left = count() - 1;
  count_.store(static_cast<std::uint16_t>(left), std::memory_order_relaxed);
  if (left == 0 && log2 >= kMinLog2ToFree) FreeRecords(/*pool_is_locked=*/false);
}

RecordPage* RecordPages::AddRegion(std::uint64_t address) {
  const std::lock_guard<SetMutex> guard(directory_lock);
  RecordPage* const known = Find(address);
  if (known != nullptr) return known;
  Directory* directory = directory_.load(std::memory_order_relaxed);
  if (directory == nullptr || directory->used * 2 > directory->mask) {
    if (!GrowDirectory()) return nullptr;
    directory = directory_.load(std::memory_order_relaxed);
  }
  auto* const pages =
      static_cast<RecordPage*>(table_memory::Map(kPagesOfRegion * sizeof(RecordPage)));
  if (pages == nullptr) return nullptr;
  Enter(*directory, RegionOf(address), pages);
  return Find(address);
}

void RecordPages::Enter(Directory& directory, std::uint64_t number, RecordPage* pages) {
  std::uint64_t i = number * kGolden >> directory.shift;
  while (directory.regions[i].pages.load(std::memory_order_relaxed) != nullptr) {
    i = (i + 1) & directory.mask;
  }
  directory.regions[i].number.store(number, std::memory_order_relaxed);
  directory.regions[i].pages.store(pages, std::memory_order_release);
  ++directory.used;
}

/// Under directory_lock. The old directory is kept, since a reader may be using it.
bool RecordPages::GrowDirectory() {
  const Directory* const old = directory_.load(std::memory_order_relaxed);
  const unsigned log2 = old == nullptr ? kFirstDirectoryLog2
                                       : static_cast<unsigned>(__builtin_popcountll(old->mask)) + 1;
  const std::size_t slots = std::size_t{1} << log2;
  auto* const fresh =
      static_cast<Directory*>(table_memory::Map(sizeof(Directory) + slots * sizeof(Region)));
  if (fresh == nullptr) return false;
  fresh->mask = slots - 1;
  fresh->shift = 64 - log2;
  for (std::uint64_t i = 0; old != nullptr && i <= old->mask; ++i) {
    RecordPage* const pages = old->regions[i].pages.load(std::memory_order_relaxed);
    if (pages == nullptr) continue;
    Enter(*fresh, old->regions[i].number.load(std::memory_order_relaxed), pages);
  }
  directory_.store(fresh, std::memory_order_release);
  return true;
}

std::uint64_t RecordPages::Count(std::uint32_t generation) {
  std::uint64_t records = 0;
  ForEach([&records, generation](std::uint64_t /*address*/, RecordPage& page) {
    if (page.count() == 0) return;
    page.Lock();
    if (page.generation() == generation) {
      page.ForEach([&records](const Record& record) {
        if (!RecordKey::IsKept(record.key)) ++records;
      });
    }
    page.Unlock();
  });
  return records;
}

void RecordPages::WaitForOperations() {
  ForEach([](std::uint64_t /*address*/, RecordPage& page) {
    if (page.IsLocked()) SpinUntil([&page] { return !page.IsLocked(); });
  });
}

void RecordPages::FreeLocksInChild() {
  ForEach([](std::uint64_t /*address*/, RecordPage& page) {
    if (page.IsLocked()) page.Unlock();
  });
}

bool RecordPages::DropAllOldRecords(std::uint32_t generation) {
  const std::unique_lock<table_memory::Pool> pool(record_pool, std::try_to_lock);
  if (!pool.owns_lock()) return false;
  bool all = true;
  ForEach([&all, generation](std::uint64_t /*address*/, RecordPage& page) {
    // Skip pages that never had a record; this is the usual case. The lock is read first: a thread
    // that sees it free also sees the table that its last holder made.
    if (!page.IsLocked() && page.records_.load(std::memory_order_relaxed) == nullptr) return;
    if (!page.TryLock()) {
      all = false;
      return;
    }
    if (page.generation_ != generation) page.StartGeneration(generation, /*pool_is_locked=*/true);
    if (page.records_.load(std::memory_order_relaxed) != nullptr) all = false;
    page.Unlock();
  });
  if (all) record_pool.ResetLocked();
  return all;
}
