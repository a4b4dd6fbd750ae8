// Walks a stack by call-frame information.
//
// On the allocation path, on any thread and in signal handlers: takes no lock, allocates nothing,
// keeps errno. Needs about 200 bytes of stack where all return addresses were met before, and about
// 2 KiB where one was not.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::cfi {

/// A frame that is in a call.
struct Frame {
  std::uint64_t return_address = 0;  // of the call; 0 for no frame
  std::uint64_t sp = 0;              // when the call has returned
  std::uint64_t fp = 0;              // the same
};

/// Fills `pcs` with addresses of the calls that the frame at `start` and those further out are in,
/// innermost first, at most `max_pcs`; where a signal interrupted a function, with the address of
/// the instruction. `start` is a frame of the calling thread that lives until this returns. Returns
/// how many there are.
std::size_t WalkFrames(const Frame& start, std::uint64_t* pcs, std::size_t max_pcs);

/// Goes on from `frame` to its caller's. False, and nothing changed, where the stack ends.
bool StepToCaller(Frame* frame);

/// Whether the step from a frame to its caller's, `return_address` being that of the call it is in,
/// needs no stack pointer.
bool NeedsNoStackPointer(std::uint64_t return_address);

/// How many steps did not fit into a rule since the process began. For tests and benchmarks.
std::uint64_t SlowSteps();

}  // namespace platform::cfi
