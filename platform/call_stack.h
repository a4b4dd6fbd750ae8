// SPDX-License-Identifier: Apache-2.0
// Unwinds the calling thread's stack.
//
// A platform tree uses libunwindstack (platform/unwindstack). Other builds use the call-frame
// information of the loaded objects (platform/cfi).
#pragma once

#include <cstddef>
#include <cstdint>

#include "arch/frame.h"

namespace platform {

/// Prepares the unwinder. Called once, at start-up, before the first capture. Returns false if
/// stacks cannot be unwound. May allocate.
bool PrepareCallStacks();

/// Stores at most `max_pcs` addresses in `pcs`, one inside each call that the calling thread is in,
/// innermost first. For a function that a signal interrupted it is the address of the next
/// instruction. Returns the number of addresses.
///
/// `inner` is the frame record of a function that the tracker's entry called. The stack starts with
/// the entry's caller. Frames of the tracker at the start are skipped.
///
/// Any thread, on the allocation path. Keeps errno. By call-frame information it allocates nothing,
/// takes no lock (but see FindLoadedObject) and is async-signal-safe. libunwindstack allocates;
/// without memory the result is 0.
std::size_t CallStack(const arch::FrameRecord* inner, std::uint64_t* pcs, std::size_t max_pcs);

}  // namespace platform
