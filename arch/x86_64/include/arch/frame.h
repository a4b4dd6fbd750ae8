// Stack frames on x86-64 (System V ABI): what the frame-pointer walk needs to know.
#pragma once

#include <cstdint>

namespace arch {

/// Taken off a return address to get an address inside the calling instruction: any byte of the
/// call will do, and its last one is always there.
inline constexpr std::uint64_t kCallSiteAdjustment = 1;

/// A frame record's alignment. The stack is aligned so at a call, and the record takes up the 16
/// bytes below (System V ABI, "The Stack Frame").
inline constexpr std::uint64_t kFrameAlignment = 16;

/// A frame record: where the frame pointer points (System V ABI, "push %rbp" after the call).
struct FrameRecord {
  std::uint64_t caller_frame;
  std::uint64_t return_address;
};

/// The return address without pointer-authentication bits; x86-64 has none. Any context.
inline std::uint64_t StripReturnAddress(std::uint64_t address) {
  return address;
}

}  // namespace arch
