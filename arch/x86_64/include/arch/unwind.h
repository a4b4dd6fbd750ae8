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
/// Columns 0 to 15 are registers; that of the return address is the program counter.
inline constexpr unsigned kRegisterColumns = 16;

/// Where a call instruction leaves the return address: the word below the canonical frame address.
inline constexpr bool kCallPushesReturnAddress = true;

/// Whether the caller's stack pointer is the end of the frame record: the call pushed the return
/// address.
inline constexpr bool kFrameRecordEndsFrame = true;

/// log2 of the alignment of call sites, for hashing: neighbouring addresses are never both one.
inline constexpr unsigned kCallSiteShift = 1;

/// Below the stack pointer, a function that calls nothing may use this much (System V ABI, "The
/// Stack Frame").
inline constexpr std::size_t kRedZoneBytes = 128;

/// The registers of one frame by column, and its program counter.
struct Registers {
  std::uint64_t general[kRegisterColumns];
  std::uint64_t pc;
};

/// Fills `registers` with those of the function that this is inlined into: the ones that calls
/// preserve, the stack pointer, and a pc inside. The others are 0.
__attribute__((always_inline)) inline void CaptureRegisters(Registers* registers) {
  std::memset(registers, 0, sizeof(*registers));
  __asm__ volatile(
      "movq %%rbx, 3*8(%0)\n\t"
      "movq %%rbp, 6*8(%0)\n\t"
      "movq %%rsp, 7*8(%0)\n\t"
      "movq %%r12, 12*8(%0)\n\t"
      "movq %%r13, 13*8(%0)\n\t"
      "movq %%r14, 14*8(%0)\n\t"
      "movq %%r15, 15*8(%0)\n\t"
      "leaq 0(%%rip), %%rax\n\t"
      "movq %%rax, 16*8(%0)"
      :
      : "D"(registers)
      : "rax", "memory");
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

/// Fills `registers` with those that a signal interrupted. `sp` is the stack pointer at the code
/// that the handler returns to, where the kernel left a ucontext_t: 40 bytes, then r8 to r15, rdi,
/// rsi, rbp, rbx, rdx, rax, rcx, rsp, rip (struct sigcontext).
__attribute__((no_sanitize("address", "thread", "undefined"))) inline void RegistersFromSignal(
    std::uint64_t sp, Registers* registers) {
  constexpr unsigned char kColumns[] = {8, 9, 10, 11, 12, 13, 14, 15, 5, 4, 6, 3, 1, 0, 2, 7};
  const auto* saved = reinterpret_cast<const std::uint64_t*>(sp + 40);
  for (const unsigned char column : kColumns) registers->general[column] = *saved++;
  registers->pc = *saved;
}

}  // namespace arch
