// SPDX-License-Identifier: Apache-2.0
// Relocation types on x86-64.
#pragma once

#include <cstdint>

namespace arch {

/// Relocation of a function's slot in the Global Offset Table (R_X86_64_JUMP_SLOT).
inline constexpr std::uint32_t kJumpSlotRelocation = 7;
/// Relocations of other words that hold an address: R_X86_64_GLOB_DAT, and R_X86_64_64, which adds
/// its addend.
inline constexpr std::uint32_t kGlobDatRelocation = 6;
inline constexpr std::uint32_t kAbsoluteRelocation = 1;
/// The program's copy of a library's variable (R_X86_64_COPY).
inline constexpr std::uint32_t kCopyRelocation = 5;

}  // namespace arch
