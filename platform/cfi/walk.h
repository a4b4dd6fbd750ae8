// SPDX-License-Identifier: Apache-2.0
// Walks a stack by call-frame information.
//
// On the allocation path, on any thread and in signal handlers: takes no lock, allocates nothing,
// keeps errno. Needs about 300 bytes of stack if all return addresses were met before, and 1 KiB if
// not.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::cfi {

/// A frame whose function has called another.
struct Frame {
  std::uint64_t return_address = 0;  // of the call; 0 for no frame
  std::uint64_t sp = 0;              // when the call has returned
  std::uint64_t fp = 0;              // the same
};

/// Fills `pcs` with addresses of the calls that a frame and those further out are in, innermost
/// first, at most `max_pcs`. Where a signal interrupted a function, it is the address of the
/// instruction. `return_address`, `sp` and `fp` are those of a Frame of the calling thread that
/// lives until this returns. Returns how many there are.
std::size_t WalkFrames(std::uint64_t return_address, std::uint64_t sp, std::uint64_t fp,
                       std::uint64_t* pcs, std::size_t max_pcs);

/// Replaces `frame` by its caller's. Returns false where the stack ends.
bool StepToCaller(Frame* frame);

/// Returns the end of the frame whose frame record is at `record`: the stack pointer after its
/// function returns. `return_address` is that of a call which the function is in. 0 if it keeps no
/// frame record.
std::uint64_t EndOfFrame(std::uint64_t return_address, std::uint64_t record);

/// The number of steps since process start that no rule could describe. For tests and benchmarks.
std::uint64_t SlowSteps();

}  // namespace platform::cfi
