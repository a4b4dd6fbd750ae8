// The holder of the record store: start-up, clearing and the fork handlers' way to the tables.
#include "tracker/DebugData.h"

#include <new>

DebugData* DebugData::GetInstance() {
  // Constant-initialized and trivially destroyed: it is there before the first constructor and
  // after the last destructor, for threads that outlive main.
  static DebugData holder;
  return &holder;
}

bool DebugData::Initialize(DebugData* holder) {
  auto* fresh = new (std::nothrow) PointerData(holder);
  if (fresh == nullptr) return false;
  // Another thread may be inside the old object's Add at this moment. The tables are process-wide
  // and a record operation never looks at its own object, so it may lose it meanwhile.
  delete holder->pointer_.exchange(fresh, std::memory_order_acq_rel);
  return fresh->Initialize();
}

void DebugData::Release() {
  delete GetInstance()->pointer_.exchange(nullptr, std::memory_order_acq_rel);
}

void DebugData::PrepareFork() {
  if (pointer() != nullptr) PointerData::PrepareFork();
}

void DebugData::PostForkParent() {
  if (pointer() != nullptr) PointerData::PostForkParent();
}

void DebugData::PostForkChild() {
  if (pointer() != nullptr) PointerData::PostForkChild();
}
