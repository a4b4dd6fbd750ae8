// SPDX-License-Identifier: Apache-2.0
// The shared backtraces and their memory.
#include "records/backtrace_table.h"

#include <cstring>
#include <mutex>

#include "records/profile.h"
#include "records/table_memory.h"

FrameInfoType* BacktraceArena::Allocate(std::uint64_t num_frames) {
  const std::uint32_t lines = LinesFor(num_frames);
  for (FreePiece** link = &ListFor(lines); *link != nullptr; link = &(*link)->next) {
    FreePiece* const piece = *link;
    if (piece->lines != lines) continue;
    *link = piece->next;
    const std::uint32_t location = piece->location;
    auto* const backtrace = reinterpret_cast<FrameInfoType*>(piece);
    backtrace->location = location;
    return backtrace;
  }
  // The end of a chunk stays unused if it is too short for this piece.
  std::uint32_t line = last_line_ + 1;
  if (line % kLinesOfChunk + lines > kLinesOfChunk)
    line = (line / kLinesOfChunk + 1) * kLinesOfChunk;
  const std::uint32_t chunk = line / kLinesOfChunk;
  if (chunk >= chunk_count_) {
    if (chunk == kMaxChunks) return nullptr;
    auto* const memory =
        static_cast<char*>(table_memory::Map(kLinesOfChunk * kLineBytes + kTailBytes));
    if (memory == nullptr) return nullptr;
    chunks_[chunk_count_++] = memory;
  }
  FrameInfoType* const backtrace = At(line);
  backtrace->location = line;
  last_line_ = line + lines - 1;
  return backtrace;
}

void BacktraceArena::Free(FrameInfoType* backtrace) {
  const std::uint32_t lines = LinesFor(backtrace->num_frames);
  const std::uint32_t location = backtrace->location;
  auto* const piece = reinterpret_cast<FreePiece*>(backtrace);
  FreePiece*& list = ListFor(lines);
  *piece = {0, list, lines, location};
  list = piece;
}

void BacktraceArena::Reset() {
  for (std::uint32_t i = 0; i < chunk_count_; ++i) {
    table_memory::Zero(chunks_[i], kLinesOfChunk * kLineBytes);
  }
  for (FreePiece*& list : free_) list = nullptr;
  last_line_ = 0;
}

BacktraceTable::Result BacktraceTable::FindOrAdd(const FrameKeyType& key, std::uint64_t hash,
                                                 std::uint64_t fingerprint,
                                                 std::uint32_t* location) {
  const std::lock_guard<SetMutex> guard(lock_);
  *location = Find(key, hash, fingerprint);
  if (*location != 0) return Result::kDone;
  if (!HasRoom()) return Result::kFull;
  FrameInfoType* const added = arena_.Allocate(key.num_frames);
  if (added == nullptr) return Result::kNoMemory;
  added->fingerprint = fingerprint;
  added->num_frames = static_cast<std::uint16_t>(key.num_frames);
  added->note = 0;
  added->sweep = 0;
  added->code_version = profile::CodeVersion();
  std::memcpy(added->pcs(), key.frames, key.num_frames * sizeof(std::uint64_t));
  Enter(*buckets_.load(std::memory_order_relaxed), added);
  ++used_;
  *location = added->location;
  return Result::kDone;
}

void BacktraceTable::Enter(Buckets& buckets, FrameInfoType* backtrace) {
  std::uint64_t at = buckets.FirstBucket(FrameKeyHash({backtrace->num_frames, backtrace->pcs()}));
  for (;; at = (at + Step(backtrace->fingerprint)) & buckets.mask) {
    for (Slot& slot : buckets.buckets[at].slots) {
      if (slot.backtrace.load(std::memory_order_relaxed) != nullptr) continue;
      slot.fingerprint.store(backtrace->fingerprint, std::memory_order_relaxed);
      slot.backtrace.store(backtrace, std::memory_order_release);
      return;
    }
  }
}

std::uint64_t BacktraceTable::CountLive(const Buckets* buckets) const {
  std::uint64_t live = 0;
  ForEachIn(buckets, [&](const FrameInfoType* backtrace) {
    if (backtrace->sweep == sweep_) ++live;
  });
  return live;
}

BacktraceTable::Buckets* BacktraceTable::MakeBuckets(std::uint64_t count) {
  for (Buckets** link = &retired_; *link != nullptr; link = &(*link)->next_retired) {
    Buckets* const buckets = *link;
    if (buckets->mask != count - 1) continue;
    *link = buckets->next_retired;
    return buckets;
  }
  auto* const buckets = static_cast<Buckets*>(table_memory::Map(Buckets::Bytes(count)));
  if (buckets == nullptr) return nullptr;
  buckets->mask = count - 1;
  buckets->shift = 64U - static_cast<unsigned>(__builtin_ctzll(count));
  return buckets;
}

/// Empties `buckets` for reuse. A search that is reading them finds no backtrace from now on.
void BacktraceTable::Retire(Buckets* buckets) {
  for (std::uint64_t b = 0; b <= buckets->mask; ++b) {
    for (Slot& slot : buckets->buckets[b].slots) {
      slot.backtrace.store(nullptr, std::memory_order_relaxed);
    }
  }
  buckets->next_retired = retired_;
  retired_ = buckets;
}

bool BacktraceTable::Rebuild(bool sweeps) {
  Buckets* const old = buckets_.load(std::memory_order_relaxed);
  const std::uint64_t live = sweeps ? CountLive(old) : used_;
  // A sweep that frees at least half of the backtraces makes enough room.
  const std::uint64_t count =
      old == nullptr ? kFirstBuckets : (live * 2 > used_ ? (old->mask + 1) * 2 : old->mask + 1);
  Buckets* const fresh = MakeBuckets(count);
  if (fresh == nullptr) return false;
  used_ = live;
  ForEachIn(old, [&](FrameInfoType* backtrace) {
    if (!sweeps || backtrace->sweep == sweep_) Enter(*fresh, backtrace);
  });
  // The order matters: a search that begins in the new epoch finds no dropped backtrace, and their
  // memory is not reused before that epoch.
  buckets_.store(fresh, std::memory_order_seq_cst);
  epoch_.fetch_add(1, std::memory_order_seq_cst);
  if (sweeps) {
    ForEachIn(old, [&](FrameInfoType* backtrace) {
      if (backtrace->sweep != sweep_) arena_.Free(backtrace);
    });
  }
  if (old != nullptr) Retire(old);
  return true;
}

bool BacktraceTable::TryClear() {
  if (!lock_.try_lock()) return false;
  // The same order as in Rebuild.
  Buckets* const old = buckets_.exchange(nullptr, std::memory_order_seq_cst);
  epoch_.fetch_add(1, std::memory_order_seq_cst);
  if (old != nullptr) Retire(old);
  used_ = 0;
  arena_.Reset();
  lock_.unlock();
  return true;
}
