// The calling thread's stack, by the platform's unwinder.
//
// A platform tree has an unwinder library (platform/unwindstack). Elsewhere the stack is walked by
// the call-frame information of the loaded objects (platform/cfi).
#pragma once

#include <cstddef>
#include <cstdint>

#include "arch/frame.h"

namespace platform {

/// Prepares the unwinder. Called once at start-up, before the first capture. Returns false if there
/// can be no stacks. May allocate.
bool PrepareCallStacks();

/// Fills `pcs` with an address inside each call that the calling thread is in, innermost first, at
/// most `max_pcs`. A function that a signal interrupted has the address of the instruction instead.
/// Returns how many there are.
///
/// `inner` is the frame record of a function that the tracker's entry called. The stack begins with
/// the entry's caller. If that is the tracker, too, its frames are left out.
///
/// Runs on the allocation path, on any thread. Keeps errno. By call-frame information it takes no
/// lock (but see FindLoadedObject), allocates nothing and is async-signal-safe. The unwinder
/// library allocates, and without memory there are no frames.
std::size_t CallStack(const arch::FrameRecord* inner, std::uint64_t* pcs, std::size_t max_pcs);

}  // namespace platform
