// SPDX-License-Identifier: Apache-2.0
// Stack frames on aarch64 (AAPCS64), for the frame-pointer walk.
#pragma once

#include <cstdint>

namespace arch {

/// Subtracted from a return address to get the address of the call: A64 instructions have 4 bytes.
inline constexpr std::uint64_t kCallSiteAdjustment = 4;

/// Alignment of a frame record. The stack pointer is aligned to 16, but clang places the record at
/// sp + 8 in functions that save one floating-point register.
inline constexpr std::uint64_t kFrameAlignment = 8;

/// The frame record that x29 points to (AAPCS64, "The Frame Pointer").
struct FrameRecord {
  std::uint64_t caller_frame;
  std::uint64_t return_address;
};

/// Returns `address` without pointer-authentication bits. XPACLRI is a hint instruction: a no-op on
/// processors without pointer authentication. Any thread, any context.
inline std::uint64_t StripReturnAddress(std::uint64_t address) {
  register std::uint64_t lr __asm__("x30") = address;
  __asm__("hint #7" : "+r"(lr));  // xpaclri
  return lr;
}

}  // namespace arch
