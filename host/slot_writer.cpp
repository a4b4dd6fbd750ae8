// SPDX-License-Identifier: Apache-2.0
// Makes a page writable for a store and restores its protection.
#include "host/slot_writer.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace host {
namespace {

enum class Access { kWritable, kProtected, kUnknown };

/// Returns whether the word at `place` can be written. Lets the kernel do an atomic "or 0" on it,
/// which fails with EFAULT if a store would raise a signal.
Access AccessTo(void* place) {
  uint32_t unused = 0;
  const long result = syscall(SYS_futex, &unused, FUTEX_WAKE_OP | FUTEX_PRIVATE_FLAG, 0, 0, place,
                              FUTEX_OP(FUTEX_OP_OR, 0, FUTEX_OP_CMP_LT, 0));
  if (result >= 0) return Access::kWritable;
  return errno == EFAULT ? Access::kProtected : Access::kUnknown;
}

}  // namespace

bool SlotWriter::MakeWritable(void** place) {
  const auto bytes = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t page = reinterpret_cast<uintptr_t>(place) & -bytes;
  if (page == page_) return true;
  ProtectPage();
  const Access access = AccessTo(place);
  if (access == Access::kUnknown) return false;
  if (access == Access::kProtected) {
    // The segment's flags usually include PROT_WRITE, which the dynamic linker has removed after
    // relocation. So it is not part of the protection to restore.
    const int protection = object_.Protection(place) & ~PROT_WRITE;
    if (mprotect(reinterpret_cast<void*>(page), bytes, protection | PROT_WRITE) != 0) return false;
    protection_ = protection;
  }
  page_ = page;
  return true;
}

void SlotWriter::ProtectPage() {
  if (page_ != 0 && protection_ >= 0) {
    mprotect(reinterpret_cast<void*>(page_), static_cast<size_t>(sysconf(_SC_PAGESIZE)),
             protection_);
  }
  page_ = 0;
  protection_ = -1;
}

SlotWriter::Result SlotWriter::Change(void** place, void* expected, void* value) {
  if (Read(place) != expected) return kOtherValue;
  if (!MakeWritable(place)) return kUnwritable;
  // Another thread may bind the slot at this moment, or the program may change a pointer in data.
  return __atomic_compare_exchange_n(place, &expected, value, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)
             ? kChanged
             : kOtherValue;
}

}  // namespace host
