// The records of live blocks, by 4 KiB page of the address space.
//
// The address of a block leads to its record: region (2 MiB), page, slot in the page's own small
// table. Threads mostly use blocks of different pages, so a page's lock and records seldom move
// between processors. Regions are never removed. Finding a page takes no lock.
//
// The sets share the pages; a record's key tells the size class, which with the address gives the
// set. A record operation holds the lock of one page. A reader of all records takes the pointer
// locks of all sets, which keeps new operations out, and waits for those that are inside
// (WaitForOperations).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// 2020-01-01 in seconds since the epoch: 32 bits around it reach from 1951 to 2088.
inline constexpr std::int64_t kRecordTimeBase = 1'577'836'800;

/// A record. 16 bytes: four to a cache line.
struct Record {
  /// Which block it belongs to (see RecordKey); 0 marks a free slot.
  std::uint32_t key;
  /// Encoded size: zygote mark in bit 31.
  std::uint32_t size;
  /// Allocation time in seconds since kRecordTimeBase.
  std::int32_t time;
  /// Location of the backtrace (see BacktraceArena); 0 for none.
  std::uint32_t backtrace;
};
static_assert(sizeof(Record) == 16);

/// A record's key: what identifies a block within its page.
class RecordKey {
 public:
  /// The key of a block at `address` of size class `size_class` (below 8).
  static std::uint32_t Of(std::uint64_t address, std::uint32_t size_class) {
    // Bits 56 to 63 are the tag that some processors ignore in addresses.
    return kUsed | size_class << 20 | static_cast<std::uint32_t>(address >> 56) << 12 |
           static_cast<std::uint32_t>(address & 0xFFF);
  }
  /// The key of a kept time: one that outlives the record of `key`, which was overwritten.
  static std::uint32_t Kept(std::uint32_t key) { return key | kKept; }

  static bool IsKept(std::uint32_t key) { return (key & kKept) != 0; }
  static std::uint32_t SizeClass(std::uint32_t key) { return key >> 20 & 7; }
  static std::uint32_t Offset(std::uint32_t key) { return key & 0xFFF; }
  static std::uint64_t Tag(std::uint32_t key) { return std::uint64_t{key >> 12 & 0xFF} << 56; }

 private:
  static constexpr std::uint32_t kUsed = std::uint32_t{1} << 31;
  static constexpr std::uint32_t kKept = std::uint32_t{1} << 23;
};

/// One page's table: open addressing, linear probing, removal by backward shift.
class RecordPage {
 public:
  /// Waits until the page is free and takes it. Not recursive. Keeps errno.
  void Lock() {
    if (locked_.exchange(1, std::memory_order_seq_cst) != 0) LockSlow();
  }
  bool TryLock() { return locked_.exchange(1, std::memory_order_seq_cst) == 0; }
  void Unlock() { locked_.store(0, std::memory_order_release); }
  bool IsLocked() const { return locked_.load(std::memory_order_seq_cst) != 0; }

  /// Number of records, kept times included. Without the lock it may be stale.
  std::uint32_t count() const { return count_.load(std::memory_order_relaxed); }
  /// Starts to fetch the first slot of `address`. Without the lock.
  void Prefetch(std::uint64_t address) const {
    const Record* records = records_.load(std::memory_order_relaxed);
    const unsigned log2 = log2_capacity_.load(std::memory_order_relaxed);
    const auto offset = static_cast<std::uint32_t>(address & 0xFFF);
    if (records != nullptr) __builtin_prefetch(records + FirstSlot(offset, log2), 1);
  }

  // The rest needs the lock, or that operations are kept out.

  /// The generation of the records. Records of an earlier generation do not count.
  std::uint32_t generation() const { return generation_; }
  /// Removes all records; the next ones are of `generation`.
  void Empty(std::uint32_t generation);

  /// The record of `key`, or null.
  Record* Find(std::uint32_t key) {
    return Find(RecordKey::Offset(key), [key](const Record& record) { return record.key == key; });
  }
  /// The kept time of the block of `key` with `backtrace`, or null.
  Record* FindKept(std::uint32_t key, std::uint32_t backtrace) {
    return Find(SpreadKept(key, backtrace), [key, backtrace](const Record& record) {
      return record.key == RecordKey::Kept(key) && record.backtrace == backtrace;
    });
  }
  /// Adds `record`, which is not there yet. False when there is no memory. May move others.
  bool Insert(const Record& record);
  /// Removes `record`. May move others.
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

  /// The slot where a search begins: multiplicative hashing (2^32 divided by the golden ratio).
  /// Blocks of one size lie at regular distances, which this spreads.
  static std::uint32_t FirstSlot(std::uint32_t spread, unsigned log2_capacity) {
    const std::uint32_t spread_over_32_bits = spread * 0x9E3779B9U;
    // In 64 bits, since Prefetch may read a capacity of 0.
    return static_cast<std::uint32_t>(std::uint64_t{spread_over_32_bits} >> (32 - log2_capacity));
  }
  /// The spread of a kept time. One block may have many of them.
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
    // A small table may be full. Then the search ends where it began.
    for (std::uint32_t probes = 0; probes <= mask && records[i].key != 0; ++probes) {
      if (match(records[i])) return &records[i];
      i = (i + 1) & mask;
    }
    return nullptr;
  }
  void LockSlow();
  bool Grow();
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
  static constexpr unsigned kPageBits = 12;
  static constexpr unsigned kRegionBits = 21;
  static constexpr std::size_t kPagesOfRegion = std::size_t{1} << (kRegionBits - kPageBits);

  /// The page of `address`; null when no block of its region was ever recorded. Takes no lock.
  static RecordPage* Find(std::uint64_t address) {
    const std::uint64_t region = RegionOf(address);
    const Directory* const directory = directory_.load(std::memory_order_acquire);
    if (directory == nullptr) return nullptr;
    for (std::uint64_t i = region * kGolden >> directory->shift;; i = (i + 1) & directory->mask) {
      const Region& found = directory->regions[i];
      RecordPage* const pages = found.pages.load(std::memory_order_acquire);
      if (pages == nullptr) return nullptr;
      if (found.number.load(std::memory_order_relaxed) == region) {
        return pages + (address >> kPageBits & (kPagesOfRegion - 1));
      }
    }
  }
  /// As Find, but adds the region when it is unknown, under a lock. Null when there is no memory.
  static RecordPage* FindOrAdd(std::uint64_t address) {
    RecordPage* const page = Find(address);
    return page != nullptr ? page : AddRegion(address);
  }

  /// Calls visit(std::uint64_t address, RecordPage&) for every page of every known region.
  /// `address` is that of the page's first byte.
  template <typename Visitor>
  static void ForEach(Visitor visit) {
    const Directory* const directory = directory_.load(std::memory_order_acquire);
    for (std::uint64_t i = 0; directory != nullptr && i <= directory->mask; ++i) {
      RecordPage* const pages = directory->regions[i].pages.load(std::memory_order_acquire);
      if (pages == nullptr) continue;
      const std::uint64_t number = directory->regions[i].number.load(std::memory_order_relaxed);
      for (std::size_t page = 0; page < kPagesOfRegion; ++page) {
        visit((number << kRegionBits) + (page << kPageBits), pages[page]);
      }
    }
  }
  /// Returns once every operation that was inside a page has left it. The caller keeps new ones
  /// out.
  static void WaitForOperations();
  /// Frees the lock of every page, in a forked child.
  static void FreeLocksInChild();
  /// Removes all records that are not of `generation` and frees their memory. Skips pages that an
  /// operation is inside. True when no record is left. The caller keeps new operations out. Waits
  /// for no lock: safe in a signal handler that has interrupted an operation.
  static bool EmptyAll(std::uint32_t generation);

 private:
  /// `number` is set before `pages`.
  struct Region {
    std::atomic<std::uint64_t> number;
    /// kPagesOfRegion of them; null in a free slot.
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
