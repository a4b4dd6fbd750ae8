// The template of a trampoline on x86-64 (System V ABI). Copied by the hook engine.
#pragma once

#include <cstddef>

namespace arch {

/// Length of the code in bytes; behind it a copy holds three 8-byte words: the address of the
/// function that begins a hooked call, that of the one that ends it, and the hook's id.
inline constexpr std::size_t kTrampolineCodeBytes = 376;

}  // namespace arch

/// The code, kTrampolineCodeBytes long. Runs at any address; not to be run where it
/// stands.
extern "C" const unsigned char arch_trampoline_code[];
