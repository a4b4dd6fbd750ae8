// SPDX-License-Identifier: Apache-2.0
// Writes to the slots of one object, also on pages that are protected against writes.
//
// For one thread at a time, under the dynamic linker's lock. Allocates nothing.
#pragma once

#include <stdint.h>

#include "linker/import_slots.h"

namespace host {

class SlotWriter {
 public:
  enum Result { kChanged, kOtherValue, kUnwritable };

  explicit SlotWriter(const lumora::linker::ImportSlots& object) : object_(object) {}
  ~SlotWriter() { ProtectPage(); }
  SlotWriter(const SlotWriter&) = delete;
  SlotWriter& operator=(const SlotWriter&) = delete;

  /// Returns the value of a slot. Other threads may change it at any time.
  void* Read(void** place) const { return __atomic_load_n(place, __ATOMIC_ACQUIRE); }

  /// Stores `value` in the slot if it holds `expected`. The page stays writable until the next call
  /// for another page, or until the end of the writer; then it has its former protection.
  Result Change(void** place, void* expected, void* value);

 private:
  bool MakeWritable(void** place);
  void ProtectPage();

  const lumora::linker::ImportSlots& object_;
  uintptr_t page_ = 0;   // the page that is known to be writable
  int protection_ = -1;  // to restore; -1: the page was writable
};

}  // namespace host
