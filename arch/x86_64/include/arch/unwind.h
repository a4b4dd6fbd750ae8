// SPDX-License-Identifier: Apache-2.0
// x86-64 on Linux, for unwinding by call-frame information: register numbers, register capture and
// signal frames. All functions run on any thread, in any context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "arch/frame.h"

namespace arch {

/// DWARF register numbers (System V ABI, "DWARF Register Number Mapping"): rbp, rsp, and the
/// return-address column.
inline constexpr unsigned kFramePointerColumn = 6;
inline constexpr unsigned kStackPointerColumn = 7;
inline constexpr unsigned kReturnAddressColumn = 16;

/// Columns of the callee-saved registers: rbx, rbp, rsp, r12 to r15.
inline constexpr unsigned char kSavedColumns[] = {3, 6, 7, 12, 13, 14, 15};
inline constexpr std::size_t kSavedRegisters = sizeof kSavedColumns;
/// Index of `column` in kSavedColumns; kSavedRegisters for other columns.
inline constexpr std::size_t SavedIndex(std::uint64_t column) {
  std::size_t index = 0;
  while (index < kSavedRegisters && kSavedColumns[index] != column) ++index;
  return index;
}

/// A call pushes the return address: it is the word below the canonical frame address.
inline constexpr bool kCallPushesReturnAddress = true;

/// Whether the caller's stack pointer is the end of the frame record. Here the call pushed the
/// return address, so it is.
inline constexpr bool kFrameRecordEndsFrame = true;

/// log2 of the distance between call sites, for hashing. A call has at least 2 bytes.
inline constexpr unsigned kCallSiteShift = 1;

/// Bytes below the stack pointer that a leaf function may use (System V ABI, "The Stack Frame").
inline constexpr std::size_t kRedZoneBytes = 128;

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
      "movq %%rbx, 0*8(%[to])\n\t"
      "movq %%rbp, 1*8(%[to])\n\t"
      "movq %%rsp, 2*8(%[to])\n\t"
      "movq %%r12, 3*8(%[to])\n\t"
      "movq %%r13, 4*8(%[to])\n\t"
      "movq %%r14, 5*8(%[to])\n\t"
      "movq %%r15, 6*8(%[to])\n\t"
      "leaq 0(%%rip), %%rax\n\t"
      "movq %%rax, 7*8(%[to])"
      : "=m"(*registers)
      : [to] "D"(registers)
      : "rax", "memory");
  registers->interrupted = nullptr;
}

/// Number of code bytes that IsSigreturn reads.
inline constexpr std::size_t kSigreturnBytes = 9;

/// Whether `pc` points to the code that a signal handler returns to: movq $15, %rax; syscall. All C
/// libraries use these instructions.
inline bool IsSigreturn(std::uint64_t pc) {
  constexpr unsigned char kCode[kSigreturnBytes] = {0x48, 0xc7, 0xc0, 0x0f, 0x00,
                                                    0x00, 0x00, 0x0f, 0x05};
  return std::memcmp(reinterpret_cast<const void*>(pc), kCode, sizeof kCode) == 0;
}

/// Whether IsSigreturn's code is always in a loaded object. Here it is in the C library.
inline constexpr bool kSigreturnIsInObject = true;

/// Number of stack bytes up to the end of what RegistersFromSignal reads.
inline constexpr std::size_t kSignalFrameBytes = 40 + 17 * 8;

/// Returns register `column` (below kInterruptedColumns) of a frame that a signal interrupted. The
/// kernel's order is r8 to r15, rdi, rsi, rbp, rbx, rdx, rax, rcx, rsp, rip (struct sigcontext).
__attribute__((no_sanitize("address", "thread", "undefined"))) inline std::uint64_t
InterruptedRegister(const std::uint64_t* interrupted, std::uint64_t column) {
  constexpr unsigned char kPlaces[] = {13, 12, 14, 11, 9, 8, 10, 15, 0, 1, 2, 3, 4, 5, 6, 7};
  return interrupted[kPlaces[column]];
}
inline constexpr std::uint64_t kInterruptedColumns = 16;

/// Fills `registers` for the frame that a signal interrupted. `sp` is the stack pointer at
/// IsSigreturn's code, where the kernel's ucontext_t begins: 40 bytes, then the registers.
__attribute__((no_sanitize("address", "thread", "undefined"))) inline void RegistersFromSignal(
    std::uint64_t sp, Registers* registers) {
  constexpr std::size_t kPcPlace = 16;
  registers->interrupted = reinterpret_cast<const std::uint64_t*>(sp + 40);
  for (std::size_t i = 0; i < kSavedRegisters; ++i) {
    registers->saved[i] = InterruptedRegister(registers->interrupted, kSavedColumns[i]);
  }
  registers->pc = registers->interrupted[kPcPlace];
}

}  // namespace arch
