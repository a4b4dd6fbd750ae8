// Stack frames on aarch64 (AAPCS64): what the frame-pointer walk needs to know.
#pragma once

#include <cstdint>

namespace arch {

/// Taken off a return address to get the address of the calling instruction: A64 instructions are
/// four bytes long.
inline constexpr std::uint64_t kCallSiteAdjustment = 4;

/// A frame record's alignment, that of its registers. The stack pointer's is 16, but clang places
/// the record 8 bytes above it in functions that save one floating-point register.
inline constexpr std::uint64_t kFrameAlignment = 8;

/// A frame record: where x29 points (AAPCS64, "The Frame Pointer").
struct FrameRecord {
  std::uint64_t caller_frame;
  std::uint64_t return_address;
};

/// The return address without pointer-authentication bits. XPACLRI lies in the hint space, so it
/// does nothing on a processor without pointer authentication. Any context.
inline std::uint64_t StripReturnAddress(std::uint64_t address) {
  register std::uint64_t lr __asm__("x30") = address;
  __asm__("hint #7" : "+r"(lr));  // xpaclri
  return lr;
}

}  // namespace arch
