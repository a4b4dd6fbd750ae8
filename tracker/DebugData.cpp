// SPDX-License-Identifier: Apache-2.0
// The holder of the record store: start-up, clearing and forks.
#include "tracker/DebugData.h"

#include <new>

#include "platform/policies.h"

DebugData* DebugData::GetInstance() {
  // Constant-initialized and never destroyed: threads may outlive main.
  static DebugData holder;
  return &holder;
}

bool DebugData::Initialize(DebugData* holder) {
  if (platform::CommandsRunDuringFork()) holder->NoteCommand();
  for (Place& place : holder->places_) {
    if (place.taken.exchange(true, std::memory_order_acq_rel)) continue;
    auto* fresh = new (place.storage) PointerData(holder);
    holder->Destroy(holder->pointer_.exchange(fresh, std::memory_order_acq_rel));
    return fresh->Initialize();
  }
  // All places are taken by clears on other threads. A PointerData has no state, so the current one
  // can empty the tables as well.
  PointerData* current = holder->pointer();
  return current != nullptr && current->Initialize();
}

void DebugData::Release() {
  DebugData* holder = GetInstance();
  holder->Destroy(holder->pointer_.exchange(nullptr, std::memory_order_acq_rel));
}

void DebugData::Destroy(PointerData* old) {
  if (old == nullptr) return;
  old->~PointerData();
  for (Place& place : places_) {
    if (static_cast<void*>(place.storage) == static_cast<void*>(old)) {
      place.taken.store(false, std::memory_order_release);
    }
  }
}

bool DebugData::IsAtRest() const {
  return pointer() == nullptr || !used_.load();
}

void DebugData::PrepareFork() {
  if (IsAtRest()) return;
  PointerData::PrepareFork();
  forking_thread_.store(pthread_self());
}

void DebugData::PostForkParent() {
  const bool prepared =
      platform::CommandsRunDuringFork() ? !IsAtRest() : forking_thread_.load() == pthread_self();
  if (!prepared) return;
  forking_thread_.store(0);
  PointerData::PostForkParent();
}

void DebugData::PostForkChild() {
  // Checked again here: if the fork timed out, a command may have arrived after PrepareFork.
  if (IsAtRest()) return;
  forking_thread_.store(0);
  PointerData::PostForkChild();
}
