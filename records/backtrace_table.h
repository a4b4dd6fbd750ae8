// SPDX-License-Identifier: Apache-2.0
// The shared backtraces. Each is stored once for all sets.
//
// A search takes no lock and writes nothing, so that the cache lines of a known backtrace stay
// shared between all processors. There are no reference counts: when the table is full, a sweep
// through all records marks the backtraces in use and frees the others.
//
// A search during a sweep or a clear may return a wrong result. The thread detects that by the
// changed `epoch` once it holds the lock of its page.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "records/set_mutex.h"

/// A shared backtrace: this header, directly followed by the pcs. 13 frames need two cache lines.
struct FrameInfoType {
  std::uint64_t fingerprint;
  /// Location in the arena. Never 0.
  std::uint32_t location;
  /// Used while a report or a profile is collected: an index into the collector's list. May contain
  /// an old value of another collection.
  std::uint32_t note;
  /// Version of the loaded code when the backtrace was first captured (see profile::CodeVersion).
  std::uint32_t code_version;
  std::uint16_t num_frames;
  /// Number of the last sweep that found a record with this backtrace. If the number wraps, a sweep
  /// may keep an unused backtrace.
  std::uint16_t sweep;

  /// The num_frames pcs, innermost first.
  std::uint64_t* pcs() { return reinterpret_cast<std::uint64_t*>(this + 1); }
  const std::uint64_t* pcs() const { return reinterpret_cast<const std::uint64_t*>(this + 1); }
};
static_assert(sizeof(FrameInfoType) == 24);

/// Key of a backtrace: the pcs, innermost first, not owned.
struct FrameKeyType {
  std::uint64_t num_frames;
  const std::uint64_t* frames;
};

/// Hash of a key of any depth: its first five pcs XORed.
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
  // Multiplies pairs of pcs, each pair with a different factor, so that the order matters. The
  // products do not depend on each other. The factor steps by the fractional part of sqrt(2).
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

/// Memory for the backtraces: pieces of whole cache lines, cut from chunks of equal size. The
/// location of a piece is the number of its first line, counted over all chunks. Allocate, Free and
/// Reset run under the table's lock.
class BacktraceArena {
 public:
  /// Returns memory for a backtrace of `num_frames` pcs, with only `location` set; null if there is
  /// no memory.
  FrameInfoType* Allocate(std::uint64_t num_frames);
  /// Frees `backtrace`. Later backtraces reuse its memory.
  void Free(FrameInfoType* backtrace);
  /// Frees everything and gives the memory back to the kernel. The addresses stay mapped.
  void Reset();
  /// Returns the backtrace at `location`.
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
  /// Readable bytes after each chunk: a search may read the pcs of a freed backtrace.
  static constexpr std::size_t kTailBytes = 16384;
  static constexpr std::size_t kMaxChunks = std::size_t{1} << 16;
  /// Free lists by number of lines, up to 129 lines for 1024 pcs, the maximum of a capture. List 0
  /// has the longer pieces.
  static constexpr std::size_t kLists = 130;

  static std::uint32_t LinesFor(std::uint64_t num_frames) {
    const std::uint64_t bytes = sizeof(FrameInfoType) + num_frames * sizeof(std::uint64_t);
    return static_cast<std::uint32_t>((bytes + kLineBytes - 1) / kLineBytes);
  }
  FreePiece*& ListFor(std::uint32_t lines) { return free_[lines < kLists ? lines : 0]; }

  FreePiece* free_[kLists] = {};
  std::uint32_t chunk_count_ = 0;
  /// The last line in use. Line 0 is never used. Starts at 0 so that the whole arena is in .bss.
  std::uint32_t last_line_ = 0;
  char* chunks_[kMaxChunks] = {};
};

class BacktraceTable {
 public:
  enum class Result { kDone, kFull, kNoMemory };

  /// Changes with every sweep and every clear: after the dropped backtraces can no longer be found,
  /// and before their memory is reused. Any thread.
  std::uint32_t epoch() const { return epoch_.load(std::memory_order_seq_cst); }

  /// Returns the location of the backtrace of `key`; 0 if it is not in the table. `hash` and
  /// `fingerprint` are those of the key. Any thread. Takes no lock.
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

  /// Finds or adds the backtrace of `key` and sets `*location`. kFull: call Grow and repeat. Takes
  /// the table's lock.
  Result FindOrAdd(const FrameKeyType& key, std::uint64_t hash, std::uint64_t fingerprint,
                   std::uint32_t* location);

  /// Returns the backtrace at `location`, the non-zero location in a record. The caller holds the
  /// lock of the record's page or keeps operations out.
  FrameInfoType* At(std::uint32_t location) const { return arena_.At(location); }

  /// Makes room for new backtraces. `mark_live(std::uint16_t sweep)` must set the `sweep` field of
  /// every backtrace that a record uses. `records` is the approximate number of records. The caller
  /// keeps all record operations out. Returns false if there is no memory. Takes the table's lock.
  template <typename MarkLive>
  bool Grow(std::uint64_t records, MarkLive mark_live) {
    const std::lock_guard<SetMutex> guard(lock_);
    if (HasRoom()) return true;
    // A sweep walks through all records, so it needs at least one backtrace per eight records.
    const bool sweeps = !is_pinned_ && used_ >= kMinToSweep && used_ >= records / 8;
    if (sweeps) mark_live(++sweep_);
    return Rebuild(sweeps);
  }

  /// Whether there was no backtrace since the last clear. Any thread.
  bool IsEmpty() const { return buckets_.load(std::memory_order_acquire) == nullptr; }
  /// Number of backtraces in the table. The caller keeps all record operations out.
  std::uint64_t size() const { return used_; }

  /// Keeps all backtraces in place until Unpin, except for TryClear. The caller keeps all record
  /// operations out.
  void Pin() { is_pinned_ = true; }
  void Unpin() { is_pinned_ = false; }

  /// Later searches do not find the backtraces for which `is_old(const FrameInfoType&)` is true.
  /// Their records keep them. The caller keeps all record operations out. Takes the table's lock.
  template <typename IsOld>
  void Hide(IsOld is_old) {
    const std::lock_guard<SetMutex> guard(lock_);
    Buckets* const buckets = buckets_.load(std::memory_order_relaxed);
    for (std::uint64_t b = 0; buckets != nullptr && b <= buckets->mask; ++b) {
      for (Slot& slot : buckets->buckets[b].slots) {
        FrameInfoType* const found = slot.backtrace.load(std::memory_order_relaxed);
        if (found == nullptr || !is_old(*found)) continue;
        // Differs from the fingerprint of the pcs, however often this is done.
        found->fingerprint += kHiddenStep;
        slot.fingerprint.store(found->fingerprint, std::memory_order_relaxed);
      }
    }
  }

  /// Empties the table. Waits for no lock: if the table's lock is taken, returns false with nothing
  /// changed.
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
  /// A power of two of buckets, whose slots are at most 3/4 full.
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
  static constexpr std::uint64_t kMinToSweep = 1024;
  /// Odd, so that 2^64 steps are needed to return to the first fingerprint.
  static constexpr std::uint64_t kHiddenStep = 0x9E3779B97F4A7C15U;

  /// Distance from a full bucket to the next one in a search. Many keys share a first bucket, since
  /// the hash covers five pcs in any order. The fingerprint spreads them from there.
  static std::uint64_t Step(std::uint64_t fingerprint) { return (fingerprint >> 32) | 1; }

  /// Returns the location of `backtrace` if it has this key, otherwise 0. Not for ThreadSanitizer:
  /// a sweep may free the backtrace meanwhile (see `epoch`).
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
  /// Replaced bucket arrays, now empty. Reused, never unmapped, since a search may be reading one.
  Buckets* retired_ = nullptr;
  /// Number of backtraces in the table.
  std::uint64_t used_ = 0;
  std::uint16_t sweep_ = 0;
  std::atomic<bool> is_pinned_{false};
  BacktraceArena arena_;
};
