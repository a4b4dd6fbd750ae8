// The calling thread's stack, by the platform's unwinder.
//
// Where the platform has an unwinder library, that one is used (see platform/unwindstack);
// elsewhere the stack is walked by the call-frame information of the loaded objects (platform/cfi).
#pragma once

#include <cstddef>
#include <cstdint>

#include "arch/frame.h"

namespace platform {

/// Readies the unwinder. At start-up, before the first capture; may allocate. Returns false when
/// there can be no stacks.
bool PrepareCallStacks();

/// Fills `pcs` with addresses of the calls that the calling thread is in, innermost first, at most
/// `max_pcs`, and returns how many there are. A function that a signal interrupted has the address
/// of the instruction. `entry` is the frame record of the tracker's function that the program
/// called: the first pc is the program's. Frames of the tracker that follow it at the top are left
/// out.
///
/// On the allocation path, on any thread and in signal handlers. Keeps errno.
std::size_t CallStack(const arch::FrameRecord* entry, std::uint64_t* pcs, std::size_t max_pcs);

/// To be called before a library is unloaded and again afterwards: what is known of its code is
/// wrong from then on. Any thread, any context.
void CodeIsUnloaded();

}  // namespace platform
