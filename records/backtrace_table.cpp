// The shared backtraces of one set, and their memory.
#include "records/backtrace_table.h"

#include <algorithm>
#include <cstring>

#include "records/table_memory.h"

namespace {

/// One page.
constexpr std::uint64_t kFirstBuckets = 64;
constexpr std::size_t kFirstChunk = 4096;
constexpr std::size_t kLargestChunk = 65536;

std::uint64_t Lines(std::uint64_t num_frames) {
  const std::uint64_t bytes = sizeof(FrameInfoType) + num_frames * sizeof(std::uint64_t);
  return (bytes + table_memory::kCacheLine - 1) / table_memory::kCacheLine;
}

}  // namespace

BacktraceArena::FreePiece** BacktraceArena::FindPiece(std::uint64_t lines) {
  FreePiece** link = &free_[lines < kLists ? lines : 0];
  while (*link != nullptr && (*link)->lines != lines) link = &(*link)->next;
  return *link != nullptr ? link : nullptr;
}

FrameInfoType* BacktraceArena::Allocate(std::uint64_t num_frames) {
  const std::uint64_t lines = Lines(num_frames);
  FreePiece** const link = FindPiece(lines);
  if (link != nullptr) {
    FreePiece* piece = *link;
    *link = piece->next;
    return reinterpret_cast<FrameInfoType*>(piece);
  }
  const std::size_t bytes = lines * table_memory::kCacheLine;
  if (!ChunkHasRoom(bytes)) return nullptr;
  void* piece = reinterpret_cast<char*>(chunks_) + used_;
  used_ += bytes;
  return static_cast<FrameInfoType*>(piece);
}

std::size_t BacktraceArena::MissingBytes(std::uint64_t num_frames) {
  const std::uint64_t lines = Lines(num_frames);
  const std::size_t bytes = lines * table_memory::kCacheLine;
  if (FindPiece(lines) != nullptr || ChunkHasRoom(bytes)) return 0;
  const std::size_t next = chunks_ == nullptr ? kFirstChunk : chunks_->bytes * 2;
  return std::max(std::min(next, kLargestChunk), bytes + table_memory::kCacheLine);
}

void BacktraceArena::Extend(void* memory, std::size_t bytes) {
  auto* const chunk = static_cast<Chunk*>(memory);
  chunk->next = chunks_;
  chunk->bytes = bytes;
  chunks_ = chunk;
  used_ = table_memory::kCacheLine;
}

void BacktraceArena::Free(FrameInfoType* backtrace) {
  const std::uint64_t lines = Lines(backtrace->num_frames);
  auto* piece = reinterpret_cast<FreePiece*>(backtrace);
  FreePiece** list = &free_[lines < kLists ? lines : 0];
  piece->next = *list;
  piece->lines = lines;
  *list = piece;
}

void BacktraceArena::Clear() {
  while (chunks_ != nullptr) {
    Chunk* chunk = chunks_;
    chunks_ = chunk->next;
    table_memory::Free(chunk, chunk->bytes);
  }
  for (FreePiece*& list : free_) list = nullptr;
  used_ = 0;
}

FrameInfoType* BacktraceTable::Insert(const FrameKeyType& key, std::uint64_t hash,
                                      std::uint64_t fingerprint) {
  if (used_ >= limit_) return nullptr;
  FrameInfoType* made = arena_.Allocate(key.num_frames);
  if (made == nullptr) return nullptr;
  made->references = 1;
  made->hash_index = next_index_++;
  made->fingerprint = fingerprint;
  made->num_frames = static_cast<std::uint32_t>(key.num_frames);
  made->report_note = 0;
  std::memcpy(made->pcs(), key.frames, key.num_frames * sizeof(std::uint64_t));
  *FreeSlot(hash, fingerprint) = {fingerprint, made};
  ++used_;
  ++size_;
  return made;
}

BacktraceTable::Slot* BacktraceTable::FreeSlot(std::uint64_t hash, std::uint64_t fingerprint) {
  std::uint64_t bucket = HomeBucket(hash);
  while (true) {
    for (Slot& slot : buckets_[bucket].slots) {
      if (slot.backtrace == nullptr) return &slot;
    }
    bucket = (bucket + Step(fingerprint)) & (bucket_count_ - 1);
  }
}

std::uint64_t BacktraceTable::NextBucketCount() const {
  if (bucket_count_ == 0) return kFirstBuckets;
  // Sweeping alone makes room when at least half of the backtraces are dead.
  return size_ * 2 > used_ ? bucket_count_ * 2 : bucket_count_;
}

std::size_t BacktraceTable::MissingBytes(std::uint64_t num_frames) {
  return used_ >= limit_ ? NextBucketCount() * sizeof(Bucket) : arena_.MissingBytes(num_frames);
}

void BacktraceTable::Extend(void* memory, std::size_t bytes) {
  if (used_ >= limit_) {
    Rebuild(static_cast<Bucket*>(memory), bytes / sizeof(Bucket));
  } else {
    arena_.Extend(memory, bytes);
  }
}

void BacktraceTable::Rebuild(Bucket* fresh, std::uint64_t new_count) {
  Bucket* const old_buckets = buckets_;
  const std::uint64_t old_count = bucket_count_;
  buckets_ = fresh;
  bucket_count_ = new_count;
  shift_ = 64U - static_cast<unsigned>(__builtin_ctzll(new_count));
  limit_ = new_count * 4 * 3 / 4;
  used_ = 0;
  for (std::uint64_t b = 0; b < old_count; ++b) {
    for (const Slot& slot : old_buckets[b].slots) {
      FrameInfoType* backtrace = slot.backtrace;
      if (backtrace == nullptr) continue;
      if (backtrace->references == 0) {
        arena_.Free(backtrace);
        continue;
      }
      const std::uint64_t hash = FrameKeyHash({backtrace->num_frames, backtrace->pcs()});
      *FreeSlot(hash, slot.fingerprint) = slot;
      ++used_;
    }
  }
  table_memory::Free(old_buckets, old_count * sizeof(Bucket));
}

void BacktraceTable::Clear() {
  table_memory::Free(buckets_, bucket_count_ * sizeof(Bucket));
  buckets_ = nullptr;
  bucket_count_ = 0;
  shift_ = 0;
  used_ = 0;
  limit_ = 0;
  size_ = 0;
  next_index_ = kFirstIndex;
  arena_.Clear();
}
