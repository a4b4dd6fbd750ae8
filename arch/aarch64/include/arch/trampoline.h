// SPDX-License-Identifier: Apache-2.0
// The template of a trampoline on aarch64 (AAPCS64). The hook engine copies it.
#pragma once

#include <cstddef>

namespace arch {

/// Length of the code in bytes. In a copy, three 8-byte words follow it: the address of the
/// function that begins a hooked call, the address of the function that ends it, and the hook's id.
inline constexpr std::size_t kTrampolineCodeBytes = 156;

}  // namespace arch

/// The code, kTrampolineCodeBytes long. A copy may be placed at any address that is a multiple
/// of 4. The template itself is not executable.
extern "C" const unsigned char arch_trampoline_code[];
