// What the operations on single records and the readers of all records share.
#pragma once

#include <atomic>
#include <cstdint>

#include "records/backtrace_table.h"
#include "records/record_pages.h"
#include "records/set_mutex.h"

namespace record_store {

/// The shared backtraces.
extern BacktraceTable backtraces;

/// Number of clears so far. Never 0 once the store is set up.
extern std::atomic<std::uint32_t> generation;
inline std::uint32_t Generation() {
  return generation.load(std::memory_order_seq_cst);
}

/// Holds the page of one block for one record operation, while no thread keeps the operations of
/// the block's set out by holding `pointer_mutex`. `held`: the calling thread does so itself.
/// `page` is not null. Allocates nothing; keeps errno.
class PageGuard {
 public:
  PageGuard(RecordPage* page, const SetMutex& pointer_mutex, bool held) : page_(page) {
    for (;;) {
      page_->Lock();
      if (__builtin_expect(static_cast<long>(!pointer_mutex.is_locked()), 1L) != 0) return;
      if (held) return;
      page_->Unlock();
      WaitPatiently([&pointer_mutex] { return !pointer_mutex.is_locked(); });
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
