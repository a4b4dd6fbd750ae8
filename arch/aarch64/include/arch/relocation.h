// SPDX-License-Identifier: Apache-2.0
// Relocation types on aarch64.
#pragma once

#include <cstdint>

namespace arch {

/// Relocation of a function's slot in the Global Offset Table (R_AARCH64_JUMP_SLOT).
inline constexpr std::uint32_t kJumpSlotRelocation = 1026;

}  // namespace arch
