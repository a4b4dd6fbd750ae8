// The shared backtraces of one set, and their memory.
#include "records/backtrace_table.h"

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

FrameInfoType* BacktraceArena::Allocate(std::uint64_t num_frames) {
  const std::uint64_t lines = Lines(num_frames);
  FreePiece** link = &free_[lines < kLists ? lines : 0];
  for (; *link != nullptr; link = &(*link)->next) {
    FreePiece* piece = *link;
    if (piece->lines != lines) continue;
    *link = piece->next;
    return reinterpret_cast<FrameInfoType*>(piece);
  }
  const std::size_t bytes = lines * table_memory::kCacheLine;
  if (chunks_ == nullptr || chunks_->bytes - used_ < bytes) {
    std::size_t size = chunks_ == nullptr ? kFirstChunk : chunks_->bytes * 2;
    if (size > kLargestChunk) size = kLargestChunk;
    if (size < bytes + table_memory::kCacheLine) size = bytes + table_memory::kCacheLine;
    auto* chunk = static_cast<Chunk*>(table_memory::Allocate(size));
    if (chunk == nullptr) return nullptr;
    chunk->next = chunks_;
    chunk->bytes = size;
    chunks_ = chunk;
    used_ = table_memory::kCacheLine;
  }
  void* piece = reinterpret_cast<char*>(chunks_) + used_;
  used_ += bytes;
  return static_cast<FrameInfoType*>(piece);
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
  if (used_ >= limit_ && !Rebuild()) return nullptr;
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

bool BacktraceTable::Rebuild() {
  Bucket* const old_buckets = buckets_;
  const std::uint64_t old_count = bucket_count_;
  // Sweeping alone makes room when at least half of the backtraces are dead.
  const std::uint64_t new_count =
      old_count == 0 ? kFirstBuckets : (size_ * 2 > used_ ? old_count * 2 : old_count);
  auto* const fresh = static_cast<Bucket*>(table_memory::Allocate(new_count * sizeof(Bucket)));
  if (fresh == nullptr) return false;
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
  return true;
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
