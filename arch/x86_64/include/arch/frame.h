// SPDX-License-Identifier: Apache-2.0
// Stack frames on x86-64 (System V ABI), for the frame-pointer walk.
#pragma once

#include <cstdint>

namespace arch {

/// Subtracted from a return address to get an address inside the call: its last byte.
inline constexpr std::uint64_t kCallSiteAdjustment = 1;

/// Alignment of a frame record: the stack is 16-byte aligned at a call, and the record occupies the
/// 16 bytes below (System V ABI, "The Stack Frame").
inline constexpr std::uint64_t kFrameAlignment = 16;

/// The frame record that rbp points to: the return address, and below it the saved rbp.
struct FrameRecord {
  std::uint64_t caller_frame;
  std::uint64_t return_address;
};

/// Returns `address`: x86-64 has no pointer-authentication bits. Any thread, any context.
inline std::uint64_t StripReturnAddress(std::uint64_t address) {
  return address;
}

}  // namespace arch
