// SPDX-License-Identifier: Apache-2.0
// The table of known objects. Any thread, any context.
#include "platform/cfi/known_objects.h"

#include <atomic>
#include <cstring>

namespace platform::cfi {
namespace {

/// Table size. Once the table is full, further objects are not recorded.
constexpr std::size_t kMaxObjects = 512;
constexpr std::uint64_t kBusy = 1;  // `begin` of an entry that is being written

struct Known {
  std::atomic<std::uint64_t> begin;  // 0 for a free entry
  std::atomic<std::uint64_t> end;
  std::atomic<std::uint64_t> identity;
};
Known g_objects[kMaxObjects];

/// Returns a number that distinguishes objects with the same addresses: a hash of the start of the
/// sorted table, which contains the number of functions and the offsets of the first ones.
std::uint64_t IdentityOf(const LoadedObject& object) {
  constexpr std::size_t kWords = 16;
  constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15;
  std::uint64_t identity = object.frame_header * kMix;
  if (object.frame_header == 0) return identity;
  std::uint64_t words[kWords] = {};
  if (object.ReadableEnd(object.frame_header, sizeof words) == 0) return identity;
  std::memcpy(words, reinterpret_cast<const void*>(object.frame_header), sizeof words);
  for (const std::uint64_t word : words) identity = (identity ^ word) * kMix;
  return identity;
}

/// Writes an entry that the caller has marked as busy.
void Write(Known* known, const LoadedObject& object, std::uint64_t identity) {
  known->end.store(object.end, std::memory_order_relaxed);
  known->identity.store(identity, std::memory_order_relaxed);
  known->begin.store(object.begin, std::memory_order_release);
}

}  // namespace

bool RecordObject(const LoadedObject& object) {
  const std::uint64_t identity = IdentityOf(object);
  bool is_new = true;
  bool is_alone = true;
  for (Known& known : g_objects) {
    std::uint64_t begin = known.begin.load(std::memory_order_acquire);
    if (begin == 0) {
      // Entries are filled in order, so all later ones are free, too.
      if (!is_new) break;
      if (!known.begin.compare_exchange_strong(begin, kBusy, std::memory_order_acquire)) continue;
      Write(&known, object, identity);
      break;
    }
    // An entry that another thread is writing may look like a different object. In the worst case
    // all rules are computed again.
    const std::uint64_t end = known.end.load(std::memory_order_relaxed);
    if (begin == kBusy || begin >= object.end || end <= object.begin) continue;
    if (begin == object.begin && end == object.end &&
        known.identity.load(std::memory_order_relaxed) == identity) {
      is_new = false;
      continue;
    }
    is_alone = false;
    if (known.begin.compare_exchange_strong(begin, kBusy, std::memory_order_acquire)) {
      Write(&known, object, identity);
      is_new = false;
    }
  }
  return is_alone;
}

}  // namespace platform::cfi
