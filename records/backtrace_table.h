// The shared backtraces of one set: key -> backtrace, each stored once and reference-counted.
//
// A stack is met once in every set, and with few live blocks it dies and comes back all the time.
// So a backtrace whose last reference goes keeps its place in the table, without being counted, and
// is only swept out when the table is rebuilt; coming back it gets a new hash index, as a new one
// would. Callers hold the set's frame lock, but where noted.
#pragma once

#include <cstddef>
#include <cstdint>

/// A shared backtrace: this head with its pcs right behind it, together in as few cache lines as
/// they need (two for 12 frames). Shared means by all live blocks of one set with the same pcs.
struct FrameInfoType {
  /// Live records that carry this backtrace; 0: dead, waiting to be swept or to come back.
  std::uint64_t references;
  std::uint64_t hash_index;
  std::uint64_t fingerprint;
  std::uint32_t num_frames;
  /// Of the report that is being grouped: where this backtrace's notes are, plus 1; else 0.
  std::uint32_t report_note;

  /// The pcs, num_frames of them, innermost first.
  std::uint64_t* pcs() { return reinterpret_cast<std::uint64_t*>(this + 1); }
  const std::uint64_t* pcs() const { return reinterpret_cast<const std::uint64_t*>(this + 1); }
};
static_assert(sizeof(FrameInfoType) == 32);

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

/// Equality of keys: same length, every pc equal. No early exit and two pcs at a time: it is asked
/// of keys with equal fingerprints, which are equal.
inline bool FrameKeyEqual(const FrameKeyType& a, const FrameKeyType& b) {
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

/// Memory of one set's backtraces: pieces of whole cache lines, cut from chunks.
class BacktraceArena {
 public:
  BacktraceArena() = default;
  ~BacktraceArena() { Clear(); }
  BacktraceArena(const BacktraceArena&) = delete;
  BacktraceArena& operator=(const BacktraceArena&) = delete;

  /// Room for a backtrace of `num_frames` pcs, contents undefined; null when there is none.
  FrameInfoType* Allocate(std::uint64_t num_frames);
  /// Bytes of the chunk that is needed before Allocate(num_frames) has room; 0 when it has.
  std::size_t MissingBytes(std::uint64_t num_frames);
  /// Adds a chunk: `bytes` bytes from table_memory.
  void Extend(void* memory, std::size_t bytes);
  /// Takes back `backtrace` for later use.
  void Free(FrameInfoType* backtrace);
  /// Releases everything.
  void Clear();

 private:
  struct FreePiece {
    FreePiece* next;
    std::uint64_t lines;
  };
  struct Chunk {
    Chunk* next;
    std::size_t bytes;
  };

  /// Free pieces by their number of cache lines; the first list holds all longer ones.
  static constexpr std::size_t kLists = 16;

  /// The link to a free piece of `lines` cache lines; null when there is none.
  FreePiece** FindPiece(std::uint64_t lines);
  bool ChunkHasRoom(std::size_t bytes) const {
    return chunks_ != nullptr && chunks_->bytes - used_ >= bytes;
  }

  FreePiece* free_[kLists] = {};
  Chunk* chunks_ = nullptr;
  std::size_t used_ = 0;
};

class BacktraceTable {
 public:
  /// First hash index handed out; smaller ones never name a backtrace.
  static constexpr std::uint64_t kFirstIndex = 2;

  BacktraceTable() = default;
  ~BacktraceTable() { Clear(); }
  BacktraceTable(const BacktraceTable&) = delete;
  BacktraceTable& operator=(const BacktraceTable&) = delete;

  /// The backtrace of `key` with one more reference, made when it is not there. `hash` and
  /// `fingerprint` are the key's. Null when it is not there and has no room: see MissingBytes.
  FrameInfoType* Acquire(const FrameKeyType& key, std::uint64_t hash, std::uint64_t fingerprint) {
    FrameInfoType* const found = Find(key, hash, fingerprint);
    if (found == nullptr) return Insert(key, hash, fingerprint);
    if (found->references++ == 0) {
      found->hash_index = next_index_++;
      ++size_;
    }
    return found;
  }

  /// Drops one reference; the last one ends the backtrace.
  void Release(FrameInfoType* backtrace) {
    if (--backtrace->references == 0) --size_;
  }

  /// Bytes of memory that the table needs before it takes another backtrace of `num_frames` pcs; 0
  /// when it has room. It may need memory twice, for its slots and for the backtrace.
  std::size_t MissingBytes(std::uint64_t num_frames);
  /// Takes `memory`: `bytes` bytes from table_memory, as many as MissingBytes has just returned.
  void Extend(void* memory, std::size_t bytes);

  /// Empties the table and starts hash indexes anew.
  void Clear();

  /// Backtraces with at least one reference.
  std::uint64_t size() const { return size_; }
  /// Calls `visit(FrameInfoType*)` for every backtrace with a reference.
  template <typename Visitor>
  void ForEach(Visitor visit) const {
    for (std::uint64_t b = 0; b < bucket_count_; ++b) {
      for (const Slot& slot : buckets_[b].slots) {
        if (slot.backtrace != nullptr && slot.backtrace->references != 0) visit(slot.backtrace);
      }
    }
  }

 private:
  struct Slot {
    std::uint64_t fingerprint;
    FrameInfoType* backtrace;
  };
  /// One cache line of slots, filled from the front.
  struct alignas(64) Bucket {
    Slot slots[4];
  };

  std::uint64_t HomeBucket(std::uint64_t hash) const {
    // Fibonacci hashing; bucket_count_ is a power of two.
    return (hash * 0x9E3779B97F4A7C15U) >> shift_;
  }
  /// How far a search goes on from a full bucket. The hash covers five pcs and cancels those that
  /// stand in another order, so many keys share a home; the fingerprint sends each on its own way.
  static std::uint64_t Step(std::uint64_t fingerprint) { return (fingerprint >> 32) | 1; }
  FrameInfoType* Find(const FrameKeyType& key, std::uint64_t hash,
                      std::uint64_t fingerprint) const {
    if (bucket_count_ == 0) return nullptr;
    for (std::uint64_t bucket = HomeBucket(hash);;
         bucket = (bucket + Step(fingerprint)) & (bucket_count_ - 1)) {
      for (const Slot& slot : buckets_[bucket].slots) {
        FrameInfoType* const found = slot.backtrace;
        if (found == nullptr) return nullptr;
        if (slot.fingerprint == fingerprint &&
            FrameKeyEqual(key, {found->num_frames, found->pcs()})) {
          return found;
        }
      }
    }
  }
  FrameInfoType* Insert(const FrameKeyType& key, std::uint64_t hash, std::uint64_t fingerprint);
  /// The free slot where a key that is not in the table belongs.
  Slot* FreeSlot(std::uint64_t hash, std::uint64_t fingerprint);
  std::uint64_t NextBucketCount() const;
  /// Moves the backtraces to `fresh` and drops those without references.
  void Rebuild(Bucket* fresh, std::uint64_t new_count);

  Bucket* buckets_ = nullptr;
  std::uint64_t bucket_count_ = 0;
  unsigned shift_ = 0;
  /// Slots in use, dead backtraces included, and how many of them may be.
  std::uint64_t used_ = 0;
  std::uint64_t limit_ = 0;
  std::uint64_t size_ = 0;
  std::uint64_t next_index_ = kFirstIndex;  // of hash indices, which only grow until Clear
  BacktraceArena arena_;
};
