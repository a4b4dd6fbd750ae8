// Relocations on 64-bit Arm: what the index of loaded libraries needs to know. Constants only.
#pragma once

#include <cstdint>

namespace arch {

/// The relocation that fills a function's slot in the Global Offset Table (R_AARCH64_JUMP_SLOT).
inline constexpr std::uint32_t kJumpSlotRelocation = 1026;

}  // namespace arch
