// SPDX-License-Identifier: Apache-2.0
// Relocation types on x86-64.
#pragma once

#include <cstdint>

namespace arch {

/// Relocation of a function's slot in the Global Offset Table (R_X86_64_JUMP_SLOT).
inline constexpr std::uint32_t kJumpSlotRelocation = 7;

}  // namespace arch
