// What unwinding by call-frame information needs to know about x86-64 on Linux: register numbers,
// the start of a walk and signal frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "arch/frame.h"

namespace arch {

/// DWARF's register numbers (System V ABI, "DWARF Register Number Mapping"): rbp, rsp, and the
/// column of the return address.
inline constexpr unsigned kFramePointerColumn = 6;
inline constexpr unsigned kStackPointerColumn = 7;
inline constexpr unsigned kReturnAddressColumn = 16;

/// Columns of the registers that calls preserve: rbx, rbp, rsp, r12 to r15.
inline constexpr unsigned char kSavedColumns[] = {3, 6, 7, 12, 13, 14, 15};
inline constexpr std::size_t kSavedRegisters = sizeof kSavedColumns;
/// The place of a column in that list; kSavedRegisters for other columns.
inline constexpr std::size_t SavedIndex(std::uint64_t column) {
  std::size_t index = 0;
  while (index < kSavedRegisters && kSavedColumns[index] != column) ++index;
  return index;
}

/// Where a call instruction leaves the return address: the word below the canonical frame address.
inline constexpr bool kCallPushesReturnAddress = true;

/// Whether the caller's stack pointer is the end of the frame record: the call pushed the return
/// address.
inline constexpr bool kFrameRecordEndsFrame = true;

/// log2 of the alignment of call sites, for hashing. Two adjacent addresses are never both call
/// sites.
inline constexpr unsigned kCallSiteShift = 1;

/// Below the stack pointer, a function that calls nothing may use this much (System V ABI, "The
/// Stack Frame").
inline constexpr std::size_t kRedZoneBytes = 128;

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

/// Bytes of code that IsSigreturn reads.
inline constexpr std::size_t kSigreturnBytes = 9;

/// Whether the code at `pc` is what a signal handler returns to: movq $15, %rax; syscall, as all C
/// libraries have it.
inline bool IsSigreturn(std::uint64_t pc) {
  constexpr unsigned char kCode[kSigreturnBytes] = {0x48, 0xc7, 0xc0, 0x0f, 0x00,
                                                    0x00, 0x00, 0x0f, 0x05};
  return std::memcmp(reinterpret_cast<const void*>(pc), kCode, sizeof kCode) == 0;
}

/// Whether the code that signal handlers return to always lies in a loaded object: the C library
/// has it.
inline constexpr bool kSigreturnIsInObject = true;

/// Bytes of the stack that RegistersFromSignal reads, from the stack pointer at IsSigreturn's code.
inline constexpr std::size_t kSignalFrameBytes = 40 + 17 * 8;

/// The register of `column` (0 to 15) of a frame that a signal interrupted. In the kernel's order:
/// r8 to r15, rdi, rsi, rbp, rbx, rdx, rax, rcx, rsp, rip (struct sigcontext).
__attribute__((no_sanitize("address", "thread", "undefined"))) inline std::uint64_t
InterruptedRegister(const std::uint64_t* interrupted, std::uint64_t column) {
  constexpr unsigned char kPlaces[] = {13, 12, 14, 11, 9, 8, 10, 15, 0, 1, 2, 3, 4, 5, 6, 7};
  return interrupted[kPlaces[column]];
}
inline constexpr std::uint64_t kInterruptedColumns = 16;

/// Fills `registers` with those that a signal interrupted. `sp` is the stack pointer at the code
/// that the handler returns to, where the kernel left a ucontext_t: 40 bytes, then the registers.
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
