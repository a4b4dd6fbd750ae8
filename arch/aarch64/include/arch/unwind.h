// SPDX-License-Identifier: Apache-2.0
// aarch64 on Linux, for unwinding by call-frame information: register numbers, register capture and
// signal frames. All functions run on any thread, in any context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "arch/frame.h"

namespace arch {

/// DWARF register numbers (DWARF for the Arm 64-bit Architecture): x29, sp, and the return-address
/// column, which is x30.
inline constexpr unsigned kFramePointerColumn = 29;
inline constexpr unsigned kStackPointerColumn = 31;
inline constexpr unsigned kReturnAddressColumn = 30;

/// Columns of the callee-saved registers x19 to x29, and of x30 and sp.
inline constexpr unsigned char kSavedColumns[] = {19, 20, 21, 22, 23, 24, 25,
                                                  26, 27, 28, 29, 30, 31};
inline constexpr std::size_t kSavedRegisters = sizeof kSavedColumns;
/// Index of `column` in kSavedColumns; kSavedRegisters for other columns.
inline constexpr std::size_t SavedIndex(std::uint64_t column) {
  const std::uint64_t index = column - kSavedColumns[0];
  return index < kSavedRegisters ? index : kSavedRegisters;
}

/// A call leaves the return address in x30. The callee may save it anywhere.
inline constexpr bool kCallPushesReturnAddress = false;

/// Whether the caller's stack pointer is the end of the frame record. Here compilers place the
/// record anywhere in the frame.
inline constexpr bool kFrameRecordEndsFrame = false;

/// log2 of the distance between call sites, for hashing.
inline constexpr unsigned kCallSiteShift = 2;

/// Bytes below the stack pointer that a function may use: none (AAPCS64, "The Stack").
inline constexpr std::size_t kRedZoneBytes = 0;

/// The registers of one frame that unwinding to its caller may need.
struct Registers {
  std::uint64_t saved[kSavedRegisters];  // in the order of kSavedColumns
  std::uint64_t pc;
  /// The kernel's copy of all registers, if a signal interrupted the frame; otherwise null.
  const std::uint64_t* interrupted;
};

/// Fills `registers` for the function that this is inlined into. The pc is an address inside it.
__attribute__((always_inline)) inline void CaptureRegisters(Registers* registers) {
  __asm__ volatile(
      "stp x19, x20, [%[to], #0*8]\n\t"
      "stp x21, x22, [%[to], #2*8]\n\t"
      "stp x23, x24, [%[to], #4*8]\n\t"
      "stp x25, x26, [%[to], #6*8]\n\t"
      "stp x27, x28, [%[to], #8*8]\n\t"
      "stp x29, x30, [%[to], #10*8]\n\t"
      "mov x9, sp\n\t"
      "adr x10, .\n\t"
      "stp x9, x10, [%[to], #12*8]"
      : "=m"(*registers)
      : [to] "r"(registers)
      : "x9", "x10", "memory");
  registers->interrupted = nullptr;
}

/// Number of code bytes that IsSigreturn reads.
inline constexpr std::size_t kSigreturnBytes = 8;

/// Whether `pc` points to the code that a signal handler returns to: mov x8, #139; svc #0. It is in
/// the kernel's vDSO, or in a page of the emulator.
inline bool IsSigreturn(std::uint64_t pc) {
  constexpr std::uint32_t kCode[] = {0xd2801168, 0xd4000001};
  return std::memcmp(reinterpret_cast<const void*>(pc), kCode, sizeof kCode) == 0;
}

/// Whether IsSigreturn's code is always in a loaded object. The emulator has it in a separate page.
inline constexpr bool kSigreturnIsInObject = false;

/// Offset of the saved registers from the stack pointer at IsSigreturn's code: siginfo_t (128
/// bytes), then ucontext_t with its mcontext_t at 176, which begins with the fault address.
inline constexpr std::size_t kSignalRegisters = 128 + 176 + 8;
/// Number of stack bytes up to the end of what RegistersFromSignal reads: x0 to x30, sp, pc.
inline constexpr std::size_t kSignalFrameBytes = kSignalRegisters + 33 * 8;

/// Returns register `column` (below kInterruptedColumns) of a frame that a signal interrupted. The
/// kernel's order is x0 to x30, sp, pc.
__attribute__((no_sanitize("address", "thread", "undefined"))) inline std::uint64_t
InterruptedRegister(const std::uint64_t* interrupted, std::uint64_t column) {
  return interrupted[column];
}
inline constexpr std::uint64_t kInterruptedColumns = 32;

/// Fills `registers` for the frame that a signal interrupted. `sp` is the stack pointer at
/// IsSigreturn's code.
__attribute__((no_sanitize("address", "thread", "undefined"))) inline void RegistersFromSignal(
    std::uint64_t sp, Registers* registers) {
  registers->interrupted = reinterpret_cast<const std::uint64_t*>(sp + kSignalRegisters);
  for (std::size_t i = 0; i < kSavedRegisters; ++i) {
    registers->saved[i] = InterruptedRegister(registers->interrupted, kSavedColumns[i]);
  }
  registers->pc = registers->interrupted[kInterruptedColumns];
}

}  // namespace arch
