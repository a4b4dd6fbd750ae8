// Relocations on x86-64: what the index of loaded libraries needs to know. Constants only.
#pragma once

#include <cstdint>

namespace arch {

/// The relocation that fills a function's slot in the Global Offset Table (R_X86_64_JUMP_SLOT).
inline constexpr std::uint32_t kJumpSlotRelocation = 7;

}  // namespace arch
