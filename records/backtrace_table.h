// The shared backtraces. Each is stored once for all sets.
//
// A known backtrace is found without a lock and without a write, so that its lines stay in the
// caches of all processors. There are no reference counts: when the table is full, a walk through
// all records finds the backtraces in use, and the others are swept out.
//
// A search during a sweep or a clear may give a wrong answer. The thread notices it by the changed
// `epoch` once it holds the lock of its page.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "records/set_mutex.h"

/// A shared backtrace: this head with its pcs right behind it, together in as few cache lines as
/// they need (two for 12 frames).
struct FrameInfoType {
  std::uint64_t fingerprint;
  std::uint32_t num_frames;
  /// Its location in the arena. Never 0.
  std::uint32_t location;
  /// Used by a report: the index of this backtrace's notes, plus 1; else 0.
  std::uint32_t report_note;
  /// Number of the last sweep that found a record of it.
  std::uint32_t sweep;

  /// The pcs, num_frames of them, innermost first.
  std::uint64_t* pcs() { return reinterpret_cast<std::uint64_t*>(this + 1); }
  const std::uint64_t* pcs() const { return reinterpret_cast<const std::uint64_t*>(this + 1); }
};
static_assert(sizeof(FrameInfoType) == 24);

/// Key of a backtrace: the pcs, innermost first, not owned.
struct FrameKeyType {
  std::uint64_t num_frames;
  const std::uint64_t* frames;
};

/// Hash of a key: its first five pcs XORed, whatever its depth.
inline std::uint64_t FrameKeyHash(const FrameKeyType& key) {
  std::uint64_t hash = 0;
  const std::uint64_t count = key.num_frames < 5 ? key.num_frames : 5;
  for (std::uint64_t i = 0; i < count; ++i) hash ^= key.frames[i];
  return hash;
}

/// Equality of keys: same length, every pc equal. No early exit and two pcs at a time: keys with
/// equal fingerprints are almost always equal. Not for ThreadSanitizer, see
/// BacktraceTable::LocationOf.
__attribute__((no_sanitize("thread"))) inline bool FrameKeyEqual(const FrameKeyType& a,
                                                                 const FrameKeyType& b) {
  using Pair = std::uint64_t __attribute__((vector_size(16), aligned(8), may_alias));
  if (a.num_frames != b.num_frames) return false;
  Pair difference = {0, 0};
  std::uint64_t i = 0;
  for (; i + 1 < a.num_frames; i += 2) {
    difference |=
        *reinterpret_cast<const Pair*>(a.frames + i) ^ *reinterpret_cast<const Pair*>(b.frames + i);
  }
  std::uint64_t last = 0;
  if (i < a.num_frames) last = a.frames[i] ^ b.frames[i];
  return (difference[0] | difference[1] | last) == 0;
}

/// A 64-bit digest of all pcs and their order. Equal keys have equal fingerprints; different ones
/// practically never, so that pcs are compared once, not once per candidate.
inline std::uint64_t FrameFingerprint(const FrameKeyType& key) {
  const auto fold = [](std::uint64_t a, std::uint64_t b) {
    const unsigned __int128 product = static_cast<unsigned __int128>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
  };
  // Pairs of pcs multiplied, each pair with a factor of its own so that order counts; the products
  // do not wait for one another. The factor steps by the fractional part of sqrt(2).
  constexpr std::uint64_t kFactorStep = 0x6A09E667F3BCC909U;
  std::uint64_t factor = 0xBB67AE8584CAA73BU;
  std::uint64_t sum = key.num_frames;
  std::uint64_t i = 0;
  for (; i + 1 < key.num_frames; i += 2) {
    sum += fold(key.frames[i] + factor, key.frames[i + 1] ^ (factor * 3));
    factor += kFactorStep;
  }
  if (i < key.num_frames) sum += fold(key.frames[i] + factor, factor * 3);
  return fold(sum, kFactorStep);
}

/// Memory of the backtraces: pieces of whole cache lines, cut from chunks of one size. The location
/// of a piece is its line number, counted over all chunks.
class BacktraceArena {
 public:
  /// Room for a backtrace of `num_frames` pcs, with its location set; null when there is no memory.
  FrameInfoType* Allocate(std::uint64_t num_frames);
  /// Frees `backtrace`; its memory serves later backtraces.
  void Free(FrameInfoType* backtrace);
  /// Frees everything and gives the memory back to the kernel; the addresses stay mapped.
  void Reset();
  /// The backtrace at `location`, which Allocate has set.
  FrameInfoType* At(std::uint32_t location) const {
    return reinterpret_cast<FrameInfoType*>(chunks_[location / kLinesOfChunk] +
                                            location % kLinesOfChunk * kLineBytes);
  }

 private:
  struct FreePiece {
    std::uint64_t unused;  // a search may read it as a fingerprint
    FreePiece* next;
    std::uint32_t lines;
    std::uint32_t location;
  };

  static constexpr std::size_t kLineBytes = 64;
  static constexpr std::uint32_t kLinesOfChunk = 4096;
  /// Readable bytes behind each chunk: a search may read the pcs of a backtrace that was freed.
  static constexpr std::size_t kTailBytes = 16384;
  static constexpr std::size_t kMaxChunks = std::size_t{1} << 16;
  /// Free pieces by their number of lines: 129 for 1024 pcs, the most that a capture returns. The
  /// first list holds longer ones.
  static constexpr std::size_t kLists = 130;

  FreePiece* free_[kLists] = {};
  std::uint32_t chunk_count_ = 0;
  /// The last line in use. Location 0 is not used. Starts as 0, so that the whole arena is in .bss.
  std::uint32_t last_line_ = 0;
  char* chunks_[kMaxChunks] = {};
};

class BacktraceTable {
 public:
  enum class Result { kDone, kFull, kNoMemory };

  /// Every sweep and every clear raises it: after the dropped backtraces can no longer be found,
  /// and before their memory is reused.
  std::uint32_t epoch() const { return epoch_.load(std::memory_order_seq_cst); }

  /// The location of the backtrace of `key`, 0 when it is not there. `hash` and `fingerprint` are
  /// the key's. Takes no lock.
  std::uint32_t Find(const FrameKeyType& key, std::uint64_t hash, std::uint64_t fingerprint) const {
    const Buckets* const buckets = buckets_.load(std::memory_order_acquire);
    if (buckets == nullptr) return 0;
    std::uint64_t at = buckets->FirstBucket(hash);
    for (std::uint64_t probes = 0; probes <= buckets->mask; ++probes) {
      for (const Slot& slot : buckets->buckets[at].slots) {
        const FrameInfoType* const found = slot.backtrace.load(std::memory_order_acquire);
        if (found == nullptr) return 0;
        if (slot.fingerprint.load(std::memory_order_relaxed) != fingerprint) continue;
        const std::uint32_t location = LocationOf(found, key);
        if (location != 0) return location;
      }
      at = (at + Step(fingerprint)) & buckets->mask;
    }
    return 0;
  }

  /// Finds the backtrace of `key`, or adds it, and sets `*location`. kFull: the caller must call
  /// Grow first. Takes the table's lock.
  Result FindOrAdd(const FrameKeyType& key, std::uint64_t hash, std::uint64_t fingerprint,
                   std::uint32_t* location);

  /// The backtrace at the location that a record has. The caller holds the lock of the record's
  /// page or keeps operations out.
  FrameInfoType* At(std::uint32_t location) const { return arena_.At(location); }

  /// Makes room. `mark_live(std::uint32_t sweep)` writes its argument into every backtrace that a
  /// record has; `records` is the approximate number of records. The caller keeps all record
  /// operations out. False when there is no memory.
  template <typename MarkLive>
  bool Grow(std::uint64_t records, MarkLive mark_live) {
    const std::lock_guard<SetMutex> guard(lock_);
    if (HasRoom()) return true;
    // A sweep costs a walk through all records. It begins when there is at least one backtrace for
    // eight records.
    const bool sweeps = used_ >= kLeastToSweep && used_ >= records / 8;
    if (sweeps) mark_live(++sweep_);
    return Rebuild(sweeps);
  }

  /// Empties the table. Waits for no lock: false, with nothing changed, when a thread is inside.
  bool TryClear();

 private:
  struct Slot {
    std::atomic<std::uint64_t> fingerprint;
    std::atomic<FrameInfoType*> backtrace;
  };
  /// One cache line of slots, filled from the front.
  struct alignas(64) Bucket {
    Slot slots[4];
  };
  /// A power of two of buckets, at most 3/4 full.
  struct Buckets {
    std::uint64_t mask;
    unsigned shift;
    Buckets* next_retired;
    Bucket buckets[1];

    std::uint64_t FirstBucket(std::uint64_t hash) const {
      // Fibonacci hashing.
      return (hash * 0x9E3779B97F4A7C15U) >> shift;
    }
    static std::size_t Bytes(std::uint64_t count) {
      return sizeof(Buckets) + (count - 1) * sizeof(Bucket);
    }
  };

  static constexpr std::uint64_t kFirstBuckets = 64;
  static constexpr std::uint64_t kLeastToSweep = 1024;

  /// Distance from a full bucket to the next one of the search. The hash covers five pcs in any
  /// order, so many keys share a first bucket; the fingerprint spreads them from there.
  static std::uint64_t Step(std::uint64_t fingerprint) { return (fingerprint >> 32) | 1; }

  /// The location of `backtrace` if that has this key, else 0. ThreadSanitizer is off: a sweep may
  /// free the backtrace meanwhile (see `epoch`).
  __attribute__((no_sanitize("thread"))) static std::uint32_t LocationOf(
      const FrameInfoType* backtrace, const FrameKeyType& key) {
    return FrameKeyEqual(key, {backtrace->num_frames, backtrace->pcs()}) ? backtrace->location : 0;
  }
  bool HasRoom() const {
    const Buckets* const buckets = buckets_.load(std::memory_order_relaxed);
    return buckets != nullptr && used_ < (buckets->mask + 1) * 3;
  }
  template <typename Visitor>
  static void ForEachIn(const Buckets* buckets, Visitor visit) {
    for (std::uint64_t b = 0; buckets != nullptr && b <= buckets->mask; ++b) {
      for (const Slot& slot : buckets->buckets[b].slots) {
        FrameInfoType* const found = slot.backtrace.load(std::memory_order_relaxed);
        if (found != nullptr) visit(found);
      }
    }
  }
  bool Rebuild(bool sweeps);
  std::uint64_t CountLive(const Buckets* buckets) const;
  Buckets* MakeBuckets(std::uint64_t count);
  void Retire(Buckets* buckets);
  static void Enter(Buckets& buckets, FrameInfoType* backtrace);

  SetMutex lock_;
  std::atomic<std::uint32_t> epoch_{0};
  std::atomic<Buckets*> buckets_{nullptr};
  /// Replaced bucket arrays, now empty. They are reused, not unmapped, since readers may be inside.
  Buckets* retired_ = nullptr;
  /// Backtraces in the table.
  std::uint64_t used_ = 0;
  std::uint32_t sweep_ = 0;
  BacktraceArena arena_;
};
