// SPDX-License-Identifier: Apache-2.0
// The records of live blocks, by 4 KiB page of the address space.
//
// The address of a block leads to its record: region (2 MiB), page, slot in the page's own small
// hash table. Threads mostly use blocks of different pages, so the lock and the records of a page
// seldom move between processors. Regions are never removed. Finding a page takes no lock.
//
// All sets share the pages. A record's key contains the size class, which together with the address
// gives the set. A record operation holds the lock of one page. A reader of all records takes the
// pointer locks of all sets, which keeps new operations out, and then waits for the running ones
// (WaitForOperations).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// Time base of records: 2020-01-01 in seconds since the epoch. A signed 32-bit offset from it
/// covers 1951 to 2088.
inline constexpr std::int64_t kRecordTimeBase = 1'577'836'800;

/// Size of a record page, independent of the kernel's page size.
inline constexpr unsigned kRecordPageBits = 12;
inline constexpr std::uint32_t kRecordPageBytes = std::uint32_t{1} << kRecordPageBits;

/// A record: 16 bytes, four per cache line.
struct Record {
  /// Identifies the block in its page (see RecordKey); 0 for a free slot.
  std::uint32_t key;
  /// Encoded size: the zygote mark is bit 31.
  std::uint32_t size;
  /// Allocation time in seconds since kRecordTimeBase.
  std::int32_t time;
  /// Location of the backtrace (see BacktraceArena); 0 for none.
  std::uint32_t backtrace;
};
static_assert(sizeof(Record) == 16);

/// A record's key: identifies a block in its page.
class RecordKey {
 public:
  /// Returns the key of the block at `address` with size class `size_class` (below 8).
  static std::uint32_t Of(std::uint64_t address, std::uint32_t size_class) {
    // Bits 56 to 63 of an address are a tag that some processors ignore.
    return kUsed | size_class << 20 | static_cast<std::uint32_t>(address >> 56) << 12 |
           Offset(static_cast<std::uint32_t>(address));
  }
  /// Returns the key of a kept time, which outlives the overwritten record of `key`.
  static std::uint32_t Kept(std::uint32_t key) { return key | kKept; }

  static bool IsKept(std::uint32_t key) { return (key & kKept) != 0; }
  static std::uint32_t SizeClass(std::uint32_t key) { return key >> 20 & 7; }
  /// Offset in the page; also that of the low half of an address.
  static std::uint32_t Offset(std::uint32_t key) { return key & (kRecordPageBytes - 1); }
  static std::uint64_t Tag(std::uint32_t key) { return std::uint64_t{key >> 12 & 0xFF} << 56; }

 private:
  static constexpr std::uint32_t kUsed = std::uint32_t{1} << 31;
  static constexpr std::uint32_t kKept = std::uint32_t{1} << 23;
};

/// The hash table of one page: open addressing, linear probing, removal by backward shift.
class RecordPage {
 public:
  /// Waits for the page's lock and takes it. Not recursive. Keeps errno.
  void Lock() {
    if (!TryLock()) LockSlow();
  }
  bool TryLock() { return locked_.exchange(1, std::memory_order_seq_cst) == 0; }
  void Unlock() { locked_.store(0, std::memory_order_release); }
  bool IsLocked() const { return locked_.load(std::memory_order_seq_cst) != 0; }

  /// Number of records, including kept times. May be stale without the lock.
  std::uint32_t count() const { return count_.load(std::memory_order_relaxed); }
  /// Prefetches the first slot of `address`. Needs no lock.
  void Prefetch(std::uint64_t address) const {
    const Record* records = records_.load(std::memory_order_relaxed);
    const unsigned log2 = log2_capacity_.load(std::memory_order_relaxed);
    const std::uint32_t offset = RecordKey::Offset(static_cast<std::uint32_t>(address));
    if (records != nullptr) __builtin_prefetch(records + FirstSlot(offset, log2), 1);
  }

  // The functions below need the lock, or that the caller keeps operations out.

  /// The generation of the records. Records of an earlier generation do not count.
  std::uint32_t generation() const { return generation_; }
  /// Removes the records if they are of another generation. Later records are of `generation`.
  void DropOldRecords(std::uint32_t generation) {
    if (generation_ != generation) StartGeneration(generation, /*pool_is_locked=*/false);
  }

  /// Returns the record of `key`, or null.
  Record* Find(std::uint32_t key) {
    return Find(RecordKey::Offset(key), [key](const Record& record) { return record.key == key; });
  }
  /// Returns the kept time of the block of `key` with `backtrace`, or null.
  Record* FindKept(std::uint32_t key, std::uint32_t backtrace) {
    return Find(SpreadKept(key, backtrace), [key, backtrace](const Record& record) {
      return record.key == RecordKey::Kept(key) && record.backtrace == backtrace;
    });
  }
  /// Adds `record`, whose key must not be in the page. Returns false if there is no memory.
  /// Invalidates pointers to records.
  bool Insert(const Record& record);
  /// Removes `record`. Invalidates pointers to records.
  void Erase(Record* record);

  /// Calls visit(Record&) for every record, in no particular order.
  template <typename Visitor>
  void ForEach(Visitor visit) {
    Record* const records = records_.load(std::memory_order_relaxed);
    if (records == nullptr) return;
    const std::uint32_t capacity = 1U << log2_capacity_.load(std::memory_order_relaxed);
    for (std::uint32_t i = 0; i < capacity; ++i) {
      if (records[i].key != 0) visit(records[i]);
    }
  }

 private:
  friend class RecordPages;

  /// Returns the slot where a search begins. Multiplicative hashing (2^32 divided by the golden
  /// ratio) spreads the regular distances between blocks of one size.
  static std::uint32_t FirstSlot(std::uint32_t spread, unsigned log2_capacity) {
    const std::uint32_t spread_over_32_bits = spread * 0x9E3779B9U;
    // In 64 bits: Prefetch may read a log2_capacity of 0.
    return static_cast<std::uint32_t>(std::uint64_t{spread_over_32_bits} >> (32 - log2_capacity));
  }
  /// The argument of FirstSlot for a kept time. One block may have many kept times.
  static std::uint32_t SpreadKept(std::uint32_t key, std::uint32_t backtrace) {
    return RecordKey::Offset(key) + backtrace * 0x85EBCA6BU;  // an odd number with well-spread bits
  }
  /// The argument of FirstSlot for `record`.
  static std::uint32_t Spread(const Record& record) {
    return RecordKey::IsKept(record.key) ? SpreadKept(record.key, record.backtrace)
                                         : RecordKey::Offset(record.key);
  }
  template <typename Match>
  Record* Find(std::uint32_t spread, Match match) {
    Record* const records = records_.load(std::memory_order_relaxed);
    if (records == nullptr) return nullptr;
    const unsigned log2 = log2_capacity_.load(std::memory_order_relaxed);
    const std::uint32_t mask = (1U << log2) - 1;
    std::uint32_t i = FirstSlot(spread, log2);
    // Bounded, since a small table may be full.
    for (std::uint32_t probes = 0; probes <= mask && records[i].key != 0; ++probes) {
      if (match(records[i])) return &records[i];
      i = (i + 1) & mask;
    }
    return nullptr;
  }
  void LockSlow();
  bool Grow();
  void StartGeneration(std::uint32_t generation, bool pool_is_locked);
  void FreeRecords(bool pool_is_locked);

  std::atomic<std::uint8_t> locked_;
  std::atomic<std::uint8_t> log2_capacity_;
  std::atomic<std::uint16_t> count_;
  std::uint32_t generation_;
  std::atomic<Record*> records_;
};
static_assert(sizeof(RecordPage) == 16);

/// All pages of the process.
class RecordPages {
 public:
  /// Returns the page of `address`; null if no block of its region was ever recorded. Takes no
  /// lock.
  static RecordPage* Find(std::uint64_t address) {
    const std::uint64_t region = RegionOf(address);
    const Directory* const directory = directory_.load(std::memory_order_acquire);
    if (directory == nullptr) return nullptr;
    for (std::uint64_t i = region * kGolden >> directory->shift;; i = (i + 1) & directory->mask) {
      const Region& found = directory->regions[i];
      RecordPage* const pages = found.pages.load(std::memory_order_acquire);
      if (pages == nullptr) return nullptr;
      if (found.number.load(std::memory_order_relaxed) == region) {
        return pages + (address >> kRecordPageBits & (kPagesOfRegion - 1));
      }
    }
  }
  /// As Find, but adds an unknown region, under a lock. Returns null if there is no memory.
  static RecordPage* FindOrAdd(std::uint64_t address) {
    RecordPage* const page = Find(address);
    return page != nullptr ? page : AddRegion(address);
  }

  /// Calls visit(std::uint64_t address, RecordPage&) for every page of every known region.
  /// `address` is the address of the page's first byte.
  template <typename Visitor>
  static void ForEach(Visitor visit) {
    const Directory* const directory = directory_.load(std::memory_order_acquire);
    for (std::uint64_t i = 0; directory != nullptr && i <= directory->mask; ++i) {
      RecordPage* const pages = directory->regions[i].pages.load(std::memory_order_acquire);
      if (pages == nullptr) continue;
      const std::uint64_t number = directory->regions[i].number.load(std::memory_order_relaxed);
      for (std::size_t page = 0; page < kPagesOfRegion; ++page) {
        visit((number << kRegionBits) + (page << kRecordPageBits), pages[page]);
      }
    }
  }
  /// Returns the number of records of `generation`, without kept times. Locks one page at a time.
  static std::uint64_t Count(std::uint32_t generation);
  /// Waits until every operation that holds a page's lock has released it. The caller keeps new
  /// operations out.
  static void WaitForOperations();
  /// Frees the lock of every page, in a forked child.
  static void FreeLocksInChild();
  /// Removes all records that are not of `generation` and frees their memory, except in pages that
  /// are locked. Returns whether no record is left. The caller keeps new operations out. Waits for
  /// no lock, so it is safe in a signal handler that interrupted an operation.
  static bool DropAllOldRecords(std::uint32_t generation);

 private:
  static constexpr unsigned kRegionBits = 21;
  static constexpr std::size_t kPagesOfRegion = std::size_t{1} << (kRegionBits - kRecordPageBits);

  /// `number` is set before `pages`.
  struct Region {
    std::atomic<std::uint64_t> number;
    /// Array of kPagesOfRegion pages; null in a free slot.
    std::atomic<RecordPage*> pages;
  };
  /// Open addressing; at most half full.
  struct Directory {
    std::uint64_t mask;
    std::uint64_t used;
    unsigned shift;
    Region regions[1];
  };

  /// 2^64 divided by the golden ratio: Fibonacci hashing.
  static constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15U;

  static std::uint64_t RegionOf(std::uint64_t address) {
    return (address & 0x00FF'FFFF'FFFF'FFFF) >> kRegionBits;
  }
  static RecordPage* AddRegion(std::uint64_t address);
  static bool GrowDirectory();
  static void Enter(Directory& directory, std::uint64_t number, RecordPage* pages);

  static std::atomic<Directory*> directory_;
};
