// SPDX-License-Identifier: Apache-2.0
// Writes to the slots of one object, also on read-only pages.
//
// One thread at a time, under the dynamic linker's lock. Allocates nothing.
#pragma once

#include <stdint.h>

#include "linker/import_slots.h"

namespace host {

class SlotWriter {
 public:
  /// kOtherValue: the slot did not hold the expected value. kUnwritable: its page cannot be made
  /// writable.
  enum Result { kChanged, kOtherValue, kUnwritable };

  /// `object` is not owned.
  explicit SlotWriter(const lumora::linker::ImportSlots& object) : object_(object) {}
  ~SlotWriter() { ProtectPage(); }
  SlotWriter(const SlotWriter&) = delete;
  SlotWriter& operator=(const SlotWriter&) = delete;

  /// Returns the value of a slot. Other threads may change it at any time.
  void* Read(void** place) const { return __atomic_load_n(place, __ATOMIC_ACQUIRE); }

  /// Stores `value` in the slot if the slot holds `expected`, in one atomic operation. The page
  /// stays writable until a call for another page or the destructor restores its protection.
  Result Change(void** place, void* expected, void* value);

 private:
  bool MakeWritable(void** place);
  void ProtectPage();

  const lumora::linker::ImportSlots& object_;
  uintptr_t page_ = 0;   // the page that is writable now; 0 if none is known
  int protection_ = -1;  // the protection to restore; -1 if the page was writable before
};

}  // namespace host
