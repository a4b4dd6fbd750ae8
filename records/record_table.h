// The table of one set's live blocks: address -> record, in one flat array.
//
// Every record operation ends here, mostly on a cold cache line, so a record is half a line and
// stands where its address says: open addressing, linear probing, removal by moving back. The
// integer hash is the identity; a multiplication spreads it over the slots, since the addresses of
// one set share their low bits. Callers hold the set's pointer lock, but where noted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// A live block. 32 bytes: two to a cache line, never across two.
struct Record {
  std::uint64_t address;
  /// Encoded size: zygote mark in bit 31.
  std::uint64_t size;
  /// The backtrace word (see BacktraceRef); 0 marks a free slot.
  std::uintptr_t backtrace;
  /// When it was made, in seconds since the epoch.
  std::int64_t time;
};
static_assert(sizeof(Record) == 32);

class RecordTable {
 public:
  RecordTable() = default;
  ~RecordTable() { Clear(); }
  RecordTable(const RecordTable&) = delete;
  RecordTable& operator=(const RecordTable&) = delete;

  /// Starts to fetch the line where the record of `address` stands or will stand. Without the
  /// lock: a slot array that is being replaced only makes the fetch useless.
  void Prefetch(std::uint64_t address) const {
    const Record* slots = slots_.load(std::memory_order_relaxed);
    const std::uint64_t capacity = capacity_.load(std::memory_order_relaxed);
    __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(slots) +
                                                     Home(address, capacity) * sizeof(Record)),
                       1);
  }

  /// The record of `address`, or null.
  Record* Find(std::uint64_t address) {
    const std::uint64_t capacity = capacity_.load(std::memory_order_relaxed);
    if (capacity == 0) return nullptr;
    Record* const slots = slots_.load(std::memory_order_relaxed);
    std::uint64_t i = Home(address, capacity);
    while (slots[i].backtrace != 0) {
      if (slots[i].address == address) return &slots[i];
      if (++i == capacity) i = 0;
    }
    return nullptr;
  }

  /// The record of `address`, made with only its address set when there is none; `*inserted` says
  /// which. The caller sets a new record's backtrace before anything else uses the table. Null
  /// when there is none and the table is full: see MissingBytes.
  Record* FindOrInsert(std::uint64_t address, bool* inserted) {
    const std::uint64_t size = size_.load(std::memory_order_relaxed);
    if (size >= limit_) {
      *inserted = false;
      return Find(address);
    }
    const std::uint64_t capacity = capacity_.load(std::memory_order_relaxed);
    Record* const slots = slots_.load(std::memory_order_relaxed);
    std::uint64_t i = Home(address, capacity);
    while (slots[i].backtrace != 0) {
      if (slots[i].address == address) {
        *inserted = false;
        return &slots[i];
      }
      if (++i == capacity) i = 0;
    }
    slots[i].address = address;
    size_.store(size + 1, std::memory_order_relaxed);
    *inserted = true;
    return &slots[i];
  }

  /// Removes `record`, which is in the table; other records may move.
  void Erase(Record* record) {
    Record* const slots = slots_.load(std::memory_order_relaxed);
    const std::uint64_t capacity = capacity_.load(std::memory_order_relaxed);
    auto hole = static_cast<std::uint64_t>(record - slots);
    std::uint64_t i = hole;
    while (true) {
      if (++i == capacity) i = 0;
      if (slots[i].backtrace == 0) break;
      // A record may move back into the hole unless its search begins behind the hole, cyclically.
      const std::uint64_t home = Home(slots[i].address, capacity);
      const bool begins_behind = hole < i ? home > hole && home <= i : home > hole || home <= i;
      if (begins_behind) continue;
      slots[hole] = slots[i];
      hole = i;
    }
    slots[hole].backtrace = 0;
    size_.store(size() - 1, std::memory_order_relaxed);
  }

  /// Bytes of memory that the table needs before it takes one more record; 0 when it has room.
  std::size_t MissingBytes() const { return size() >= limit_ ? NextBytes() : 0; }
  /// Moves the records to `memory`: `bytes` bytes from table_memory, as many as MissingBytes has
  /// just returned.
  void Extend(void* memory, std::size_t bytes);

  /// Empties the table and releases its memory.
  void Clear();

  /// Number of records. Readable without the lock; then it may be stale.
  std::uint64_t size() const { return size_.load(std::memory_order_relaxed); }
  /// Slots, free ones (backtrace 0) included, for a reader that walks them all.
  const Record* slots() const { return slots_.load(std::memory_order_relaxed); }
  std::uint64_t capacity() const { return capacity_.load(std::memory_order_relaxed); }

 private:
  /// The slot where a search for `address` begins: the high half of hash x capacity, which keeps
  /// the records in hash order and so makes growing a walk through both arrays.
  static std::uint64_t Home(std::uint64_t address, std::uint64_t capacity) {
    // 2^64 divided by the golden ratio: Fibonacci hashing.
    const std::uint64_t spread = address * 0x9E3779B97F4A7C15U;
    return static_cast<std::uint64_t>((static_cast<unsigned __int128>(spread) * capacity) >> 64);
  }
  std::size_t NextBytes() const;

  std::atomic<Record*> slots_{nullptr};
  std::atomic<std::uint64_t> capacity_{0};
  std::atomic<std::uint64_t> size_{0};
  std::uint64_t limit_ = 0;
};
