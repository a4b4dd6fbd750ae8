// SPDX-License-Identifier: Apache-2.0
// Relocation types on aarch64.
#pragma once

#include <cstdint>

namespace arch {

/// Relocation of a function's slot in the Global Offset Table (R_AARCH64_JUMP_SLOT).
inline constexpr std::uint32_t kJumpSlotRelocation = 1026;
/// Relocations of other words that hold an address: R_AARCH64_GLOB_DAT, and R_AARCH64_ABS64, which
/// adds its addend.
inline constexpr std::uint32_t kGlobDatRelocation = 1025;
inline constexpr std::uint32_t kAbsoluteRelocation = 257;
/// The program's copy of a library's variable (R_AARCH64_COPY).
inline constexpr std::uint32_t kCopyRelocation = 1024;

}  // namespace arch
