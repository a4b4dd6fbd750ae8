// SPDX-License-Identifier: Apache-2.0
// Walks a stack by call-frame information.
//
// Runs on the allocation path, on any thread and in signal handlers: takes no lock, allocates
// nothing, keeps errno. Needs about 300 bytes of stack if the rules of all return addresses are
// cached, otherwise 1 KiB.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::cfi {

/// The frame of a function during a call that it made.
struct Frame {
  std::uint64_t return_address = 0;  // of the call; 0 for no frame
  std::uint64_t sp = 0;              // stack pointer after the call returns
  std::uint64_t fp = 0;              // frame pointer after the call returns
};

/// Fills `pcs` with up to `max_pcs` addresses, innermost first: the address of the current call of
/// a frame and of each outer frame. For a function that a signal interrupted it is the address of
/// the interrupted instruction. `return_address`, `sp` and `fp` are those of a Frame of the calling
/// thread that exists until this returns. Returns the number of addresses.
std::size_t WalkFrames(std::uint64_t return_address, std::uint64_t sp, std::uint64_t fp,
                       std::uint64_t* pcs, std::size_t max_pcs);

/// Replaces `frame` by its caller's frame. Returns false if the stack ends here.
bool StepToCaller(Frame* frame);

/// Returns the end of the frame whose frame record is at `record`: the stack pointer after its
/// function returns. `return_address` is that of the function's current call. Returns 0 if the
/// function keeps no frame record.
std::uint64_t EndOfFrame(std::uint64_t return_address, std::uint64_t record);

/// Returns the number of steps since process start that no rule could describe. For tests and
/// benchmarks.
std::uint64_t SlowSteps();

}  // namespace platform::cfi
