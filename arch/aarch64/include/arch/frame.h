// Stack frames on aarch64 (AAPCS64): what the frame-pointer walk needs to know.
#pragma once

#include <cstdint>

namespace arch {

/// This processor in the unwinder library's numbering (unwindstack/Arch.h: ARCH_ARM64).
inline constexpr std::uint8_t kUnwindstackArch = 2;

/// Taken off a return address to get the address of the calling instruction: A64 instructions are
/// four bytes long.
inline constexpr std::uint64_t kCallSiteAdjustment = 4;

/// The stack pointer's alignment, and so a frame record's (AAPCS64, "The stack").
inline constexpr std::uint64_t kFrameAlignment = 16;

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
