// The registry of hooked slots. See the header for who runs it where.
//
// Writers hold the lock. Readers follow two published pointers: to the table of records by id, and
// from a record to its list. Neither a table nor a list is ever changed or freed once published, so
// each hook and unhook costs its few bytes for the rest of the process's life; so does its
// trampoline, which a call may still be inside.
#include "plthooks/hooks.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <utility>

#include "linker/rwlock.h"

namespace lumora::plthooks::hooks {

namespace {

using linker::ReadLock;
using linker::WriteLock;

struct InternalHookInfo {
  std::uint64_t id;
  void** got_address;
  bool no_trampoline;
  /// For writers, under the lock.
  RunList run_list;
  /// A copy of run_list as of the last change, for readers.
  std::atomic<const RunList*> published{nullptr};
};

/// Records by id, which are small numbers given out in order.
class RecordTable {
 public:
  const InternalHookInfo* find(std::uint64_t id) const {
    const Slots* slots = current_.load(std::memory_order_acquire);
    if (slots == nullptr || id >= slots->size()) return nullptr;
    return (*slots)[id].load(std::memory_order_acquire);
  }

  /// Only under the registry's lock.
  void set(std::uint64_t id, const InternalHookInfo* record) {
    Slots* slots = all_.empty() ? nullptr : all_.back().get();
    if (slots == nullptr || id >= slots->size()) slots = grow(id);
    (*slots)[id].store(record, std::memory_order_release);
  }

 private:
  using Slots = std::vector<std::atomic<const InternalHookInfo*>>;

  Slots* grow(std::uint64_t id) {
    constexpr std::size_t kFirstSize = 64;
    auto larger = std::make_unique<Slots>(std::max<std::size_t>(kFirstSize, 2 * id));
    if (!all_.empty()) {
      for (std::size_t at = 0; at < all_.back()->size(); ++at) {
        (*larger)[at].store((*all_.back())[at].load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
      }
    }
    all_.push_back(std::move(larger));
    current_.store(all_.back().get(), std::memory_order_release);
    return all_.back().get();
  }

  std::atomic<const Slots*> current_{nullptr};
  /// The outgrown ones too: a reader may be in one.
  std::vector<std::unique_ptr<Slots>> all_;
};

struct Globals {
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
  std::atomic<std::uint64_t> next_id{1};
  std::map<void**, InternalHookInfo*> by_got;
  RecordTable by_id;
  /// Owners of what readers may be looking at.
  std::vector<std::unique_ptr<InternalHookInfo>> records;
  std::vector<std::unique_ptr<const RunList>> lists;
};

/// Left to the process's end, never to its exit handlers: calls go through the trampolines until
/// the last moment.
Globals& globals() {
  static auto* instance = new Globals;
  return *instance;
}

/// Makes `list` the record's. Under the lock. Throws before anything has changed, or not at all.
void publish(Globals& all, InternalHookInfo& record, RunList list) {
  all.lists.push_back(std::make_unique<const RunList>(list));
  record.published.store(all.lists.back().get(), std::memory_order_release);
  record.run_list = std::move(list);
}

void add_record(Globals& all, HookInfo& info) {
  auto record = std::make_unique<InternalHookInfo>();
  record->id = all.next_id.fetch_add(1);
  record->got_address = info.got_address;
  record->no_trampoline = info.no_trampoline;
  publish(all, *record, {info.previous_function, info.new_function});
  all.records.push_back(std::move(record));
  InternalHookInfo* kept = all.records.back().get();
  all.by_id.set(kept->id, kept);
  all.by_got.emplace(kept->got_address, kept);
  info.out_id = kept->id;
}

}  // namespace

HookResult add(HookInfo& info) {
  if (info.got_address == nullptr || info.new_function == nullptr ||
      info.previous_function == nullptr) {
    return HOOK_INVALID;
  }
  Globals& all = globals();
  const WriteLock lock(&all.lock);
  const auto found = all.by_got.find(info.got_address);
  if (found == all.by_got.end()) {
    add_record(all, info);
    return HOOK_NEW;
  }
  InternalHookInfo& record = *found->second;
  if (record.no_trampoline) return HOOK_NOT_CHAINABLE;
  RunList longer = record.run_list;
  longer.push_back(info.new_function);
  publish(all, record, std::move(longer));
  return HOOK_APPENDED;
}

HookResult remove(HookInfo& info) {
  if (info.got_address == nullptr || info.new_function == nullptr) return HOOK_INVALID;
  Globals& all = globals();
  const WriteLock lock(&all.lock);
  const auto found = all.by_got.find(info.got_address);
  if (found == all.by_got.end()) return HOOK_UNKNOWN;
  InternalHookInfo& record = *found->second;
  if (record.run_list.size() == 1) {
    if (record.run_list.front() != info.new_function) return HOOK_INVALID;
    // By its id the record stays known: a call may have read the slot just before it changed.
    all.by_got.erase(found);
    return HOOK_REMOVED_FULLY;
  }
  RunList shorter = record.run_list;
  const auto hook = std::find(shorter.begin(), shorter.end(), info.new_function);
  if (hook == shorter.end()) return HOOK_UNKNOWN;
  if (hook == shorter.begin()) return HOOK_INVALID;
  shorter.erase(hook);
  publish(all, record, std::move(shorter));
  info.previous_function = record.run_list.front();
  return record.run_list.size() == 1 ? HOOK_REMOVED_TRIVIAL : HOOK_REMOVED_STILL_HOOKED;
}

bool is_hooked(std::uintptr_t slot) {
  Globals& all = globals();
  const ReadLock lock(&all.lock);
  return all.by_got.count(reinterpret_cast<void**>(slot)) != 0;
}

RunList get_run_list(std::uint64_t id) {
  const RunList* list = current_run_list(id);
  return list != nullptr ? *list : RunList();
}

const RunList* current_run_list(std::uint64_t id) {
  const InternalHookInfo* record = globals().by_id.find(id);
  return record != nullptr ? record->published.load(std::memory_order_acquire) : nullptr;
}

}  // namespace lumora::plthooks::hooks
