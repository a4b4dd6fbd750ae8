// SPDX-License-Identifier: Apache-2.0
// Rules that differ between Android and Linux and that a Linux build may choose: MEMLEAK_POLICIES
// selects platform/android/policies.cpp or platform/linux/policies.cpp.
#pragma once

#include <pthread.h>

#include <cstddef>

namespace platform {

/// Returns whether a forked child releases the locks that other threads of its parent held.
///
/// Android: false. A child that is forked during a report inherits the report's lock and can never
/// write a report. Linux: true. A child reports at its exit, and the thread that would release the
/// lock does not exist there.
///
/// Called in the child, on its only thread. Async-signal-safe.
bool ForkedChildFreesLocks();

/// Returns whether a command may be carried out while a thread forks.
///
/// Android: true; the control signal interrupts any thread. Linux: false; the loader holds commands
/// back.
///
/// Any thread. Async-signal-safe.
bool CommandsRunDuringFork();

/// Returns the PROT_ bits to give a library's page back after a word in it was written.
/// `page` is page-aligned and `bytes` long, and still has its old protection.
///
/// Android: always PROT_READ, because every library there has full RELRO. Linux: PROT_READ in a
/// PT_GNU_RELRO segment; elsewhere the current protection, since slots and variables may share a
/// page; PROT_READ | PROT_WRITE if the current protection is unknown.
///
/// Any thread. Keeps errno. May take the dynamic linker's lock, so not for signal handlers.
int ProtectionAfterWrite(const void* page, std::size_t bytes);

/// Bounds on the number of hexadecimal digits of a pc, both inclusive.
struct PcWidth {
  int min_digits;
  int max_digits;
};

/// Android with 39-bit addresses: pcs from 0x10000000 to 0xFFFFFFFFFF.
inline constexpr PcWidth kAndroidPcWidth{8, 10};
/// Linux user space on x86-64 and on aarch64 with 48-bit addresses: at most 12 digits. The minimum
/// is 6, because programs that are not position-independent are linked at 0x400000.
inline constexpr PcWidth kLinuxPcWidth{6, 12};

/// Returns the bounds of pcs that can be code. Any thread, any context.
PcWidth AcceptedPcWidth();

/// Returns whether pthread_setspecific on `key` never allocates memory, on any thread. The tracker
/// marks threads inside the allocator, so an allocation there would recurse.
///
/// bionic keeps all keys in a per-thread array. glibc does so for keys below 32 and allocates a
/// block for others when a thread first sets one.
///
/// Any thread, any context.
bool ThreadKeyNeverAllocates(pthread_key_t key);

}  // namespace platform
