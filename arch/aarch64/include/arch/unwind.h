// What unwinding by call-frame information needs to know about aarch64 on Linux: register numbers,
// the start of a walk and signal frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "arch/frame.h"

namespace arch {

/// DWARF's register numbers (DWARF for the Arm 64-bit Architecture): x29, sp, and the column of the
/// return address, which is x30's.
inline constexpr unsigned kFramePointerColumn = 29;
inline constexpr unsigned kStackPointerColumn = 31;
inline constexpr unsigned kReturnAddressColumn = 30;

/// Columns of the registers that calls preserve, x19 to x29, and those of x30 and sp.
inline constexpr unsigned char kSavedColumns[] = {19, 20, 21, 22, 23, 24, 25,
                                                  26, 27, 28, 29, 30, 31};
inline constexpr std::size_t kSavedRegisters = sizeof kSavedColumns;
/// The place of a column in that list; kSavedRegisters for other columns.
inline constexpr std::size_t SavedIndex(std::uint64_t column) {
  const std::uint64_t index = column - kSavedColumns[0];
  return index < kSavedRegisters ? index : kSavedRegisters;
}

/// A call leaves the return address in x30. The callee may save it anywhere.
inline constexpr bool kCallPushesReturnAddress = false;

/// Whether the caller's stack pointer is the end of the frame record. Compilers place the record
/// anywhere in the frame.
inline constexpr bool kFrameRecordEndsFrame = false;

/// log2 of the alignment of call sites, for hashing.
inline constexpr unsigned kCallSiteShift = 2;

/// A function may use nothing below the stack pointer (AAPCS64, "The stack").
inline constexpr std::size_t kRedZoneBytes = 0;

/// The registers of one frame that its callers may need.
struct Registers {
  std::uint64_t saved[kSavedRegisters];  // in the order of kSavedColumns
  std::uint64_t pc;
  /// Where the kernel saved all registers of a frame that a signal interrupted; null for others.
  const std::uint64_t* interrupted;
};

/// Fills `registers` with those of the function that this is inlined into, and a pc inside.
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

/// Bytes of code that IsSigreturn reads.
inline constexpr std::size_t kSigreturnBytes = 8;

/// Whether the code at `pc` is what a signal handler returns to: mov x8, #139; svc #0, in the
/// kernel's shared object and in the emulator's page.
inline bool IsSigreturn(std::uint64_t pc) {
  constexpr std::uint32_t kCode[] = {0xd2801168, 0xd4000001};
  return std::memcmp(reinterpret_cast<const void*>(pc), kCode, sizeof kCode) == 0;
}

/// Whether the code that signal handlers return to always lies in a loaded object. The emulator has
/// a page of its own for it.
inline constexpr bool kSigreturnIsInObject = false;

/// From the stack pointer at IsSigreturn's code to the saved registers: siginfo_t (128 bytes), then
/// ucontext_t, whose mcontext_t is at 176 and begins with the fault's address.
inline constexpr std::size_t kSignalRegisters = 128 + 176 + 8;
/// Bytes of the stack that RegistersFromSignal reads: x0 to x30, sp, pc.
inline constexpr std::size_t kSignalFrameBytes = kSignalRegisters + 33 * 8;

/// The register of `column` (0 to 31) of a frame that a signal interrupted: x0 to x30, sp, pc.
__attribute__((no_sanitize("address", "thread", "undefined"))) inline std::uint64_t
InterruptedRegister(const std::uint64_t* interrupted, std::uint64_t column) {
  return interrupted[column];
}
inline constexpr std::uint64_t kInterruptedColumns = 32;

/// Fills `registers` with those that a signal interrupted. `sp` is the stack pointer at the code
/// that the handler returns to.
__attribute__((no_sanitize("address", "thread", "undefined"))) inline void RegistersFromSignal(
    std::uint64_t sp, Registers* registers) {
  registers->interrupted = reinterpret_cast<const std::uint64_t*>(sp + kSignalRegisters);
  for (std::size_t i = 0; i < kSavedRegisters; ++i) {
    registers->saved[i] = InterruptedRegister(registers->interrupted, kSavedColumns[i]);
  }
  registers->pc = registers->interrupted[kInterruptedColumns];
}

}  // namespace arch
