// SPDX-License-Identifier: Apache-2.0
// State shared by the operations on single records and the readers of all records.
#pragma once

#include <atomic>
#include <cstdint>

#include "records/backtrace_table.h"
#include "records/record_pages.h"
#include "records/set_mutex.h"

namespace record_store {

/// The shared backtraces.
extern BacktraceTable backtraces;

/// Number of clears so far. Not 0 after the first Initialize.
extern std::atomic<std::uint32_t> generation;
inline std::uint32_t Generation() {
  return generation.load(std::memory_order_seq_cst);
}

/// Holds the lock of a page for one record operation. `pointer_mutex` is that of the block's set.
/// Waits while a thread keeps operations out, unless `held`: the calling thread is the one that
/// does so. `page` is not null. Allocates nothing; keeps errno.
class PageGuard {
 public:
  PageGuard(RecordPage* page, const SetMutex& pointer_mutex, bool held) : page_(page) {
    for (;;) {
      page_->Lock();
      if (Likely(!pointer_mutex.is_locked())) return;
      if (held) return;
      page_->Unlock();
      SpinUntil([&pointer_mutex] { return !pointer_mutex.is_locked(); });
    }
  }
  ~PageGuard() { page_->Unlock(); }
  PageGuard(const PageGuard&) = delete;
  PageGuard& operator=(const PageGuard&) = delete;

 private:
  RecordPage* const page_;
};

/// Calls visit(std::uint64_t address, Record&) for every record and kept time since the last clear.
/// The caller keeps record operations out.
template <typename Visitor>
void ForEachRecord(Visitor visit) {
  const std::uint32_t now = Generation();
  RecordPages::ForEach([&visit, now](std::uint64_t page_address, RecordPage& page) {
    if (page.count() == 0 || page.generation() != now) return;
    page.ForEach([&visit, page_address](Record& record) {
      visit(page_address | RecordKey::Offset(record.key) | RecordKey::Tag(record.key), record);
    });
  });
}

}  // namespace record_store
