// The template of a trampoline on aarch64 (AAPCS64). Copied by the hook engine.
#pragma once

#include <cstddef>

namespace arch {

/// Length of the code in bytes; behind it a copy holds three 8-byte words: the address of the
/// function that begins a hooked call, that of the one that ends it, and the hook's id.
inline constexpr std::size_t kTrampolineCodeBytes = 156;

}  // namespace arch

/// The code, kTrampolineCodeBytes long. Runs at any address that is a multiple of 4; not to be run
/// where it stands.
extern "C" const unsigned char arch_trampoline_code[];
