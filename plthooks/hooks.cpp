// SPDX-License-Identifier: Apache-2.0
// The registry of hooked slots.
//
// Writers hold the lock. Readers follow a published pointer to the table of records by id. A record
// is never freed, since a call may still be in its trampoline.
#include "plthooks/hooks.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <utility>

#include "linker/rwlock.h"
#include "platform/never_destroyed.h"

namespace lumora::plthooks::hooks {

namespace {

using linker::ReadLock;
using linker::WriteLock;

struct InternalHookInfo {
  std::uint64_t id;
  void** got_address;
  bool no_trampoline;
  HookChain run_list;
  std::shared_ptr<void> library;
};

/// Records by id. Ids are consecutive small numbers.
class RecordTable {
 public:
  /// Returns the record, or null. Any thread, any context. Static, so that a hooked call does not
  /// check whether the globals are initialized.
  static const InternalHookInfo* find(std::uint64_t id) {
    const Slots* slots = current_.load(std::memory_order_acquire);
    if (slots == nullptr || id >= slots->size()) return nullptr;
    return (*slots)[id].load(std::memory_order_acquire);
  }

  /// Makes room for `id`. Throws std::bad_alloc. Under the registry's lock.
  void reserve(std::uint64_t id) {
    if (all_.empty() || id >= all_.back()->size()) grow(id);
  }
  /// Publishes `record`. Call reserve(id) first. Under the registry's lock.
  void set(std::uint64_t id, const InternalHookInfo* record) {
    (*all_.back())[id].store(record, std::memory_order_release);
  }

 private:
  using Slots = std::vector<std::atomic<const InternalHookInfo*>>;

  void grow(std::uint64_t id) {
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
  }

  static std::atomic<const Slots*> current_;
  /// All arrays ever made; the last one is current. A reader may still use an older one.
  std::vector<std::unique_ptr<Slots>> all_;
};

std::atomic<const RecordTable::Slots*> RecordTable::current_{nullptr};

struct Globals {
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
  std::atomic<std::uint64_t> next_id{1};
  std::map<void**, InternalHookInfo*> by_got;
  RecordTable by_id;
};

/// Never destroyed: calls through trampolines continue while exit handlers run.
Globals& globals() {
  static platform::NeverDestroyed<Globals> instance;
  return instance.get();
}

void add_record(Globals& all, HookInfo& info) {
  auto record = std::make_unique<InternalHookInfo>();
  record->id = all.next_id.fetch_add(1);
  record->got_address = info.got_address;
  record->no_trampoline = info.no_trampoline;
  record->run_list.append(info.previous_function);
  record->run_list.append(info.new_function);
  all.by_id.reserve(record->id);
  all.by_got.emplace(record->got_address, record.get());
  // Nothing below this line can fail.
  record->library = std::move(info.library);
  info.out_id = record->id;
  all.by_id.set(info.out_id, record.release());
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
  record.run_list.append(info.new_function);
  info.out_id = record.id;
  info.previous_function = record.run_list.snapshot().original();
  return HOOK_APPENDED;
}

HookResult remove(HookInfo& info) {
  if (info.got_address == nullptr || info.new_function == nullptr) return HOOK_INVALID;
  Globals& all = globals();
  const WriteLock lock(&all.lock);
  const auto found = all.by_got.find(info.got_address);
  if (found == all.by_got.end()) return HOOK_UNKNOWN;
  InternalHookInfo& record = *found->second;
  void* const original = record.run_list.snapshot().original();
  if (record.run_list.length() == 1) {
    if (original != info.new_function) return HOOK_INVALID;
    // The record stays in by_id: a call may have read the slot just before it changed.
    all.by_got.erase(found);
    info.library = std::move(record.library);
    return HOOK_REMOVED_FULLY;
  }
  if (original == info.new_function) return HOOK_INVALID;
  if (!record.run_list.remove(info.new_function)) return HOOK_UNKNOWN;
  info.previous_function = original;
  return record.run_list.length() == 1 ? HOOK_REMOVED_TRIVIAL : HOOK_REMOVED_STILL_HOOKED;
}

bool is_hooked(std::uintptr_t slot) {
  Globals& all = globals();
  const ReadLock lock(&all.lock);
  return all.by_got.count(reinterpret_cast<void**>(slot)) != 0;
}

RunList get_run_list(std::uint64_t id) {
  const HookChain::Snapshot functions = current_run_list(id);
  RunList list;
  for (std::uint32_t index = 0; index < functions.size(); ++index) {
    if (void* function = functions.element(index)) list.push_back(function);
  }
  return list;
}

HookChain::Snapshot current_run_list(std::uint64_t id) {
  const InternalHookInfo* record = RecordTable::find(id);
  return record != nullptr ? record->run_list.snapshot() : HookChain::Snapshot();
}

}  // namespace lumora::plthooks::hooks
