// Walks a stack by call-frame information.
//
// On the allocation path, on any thread and in signal handlers: takes no lock, allocates nothing,
// keeps errno. Needs about 300 bytes of stack if all return addresses were met before, and 1 KiB if
// not.
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

/// Fills `pcs` with addresses of the calls that a frame and those further out are in, innermost
/// first, at most `max_pcs`. Where a signal interrupted a function, it is the address of the
/// instruction. `return_address`, `sp` and `fp` are those of a Frame of the calling thread that
/// lives until this returns. Returns how many there are.
std::size_t WalkFrames(std::uint64_t return_address, std::uint64_t sp, std::uint64_t fp,
                       std::uint64_t* pcs, std::size_t max_pcs);

/// Goes on from `frame` to its caller's. False, and nothing changes, where the stack ends.
bool StepToCaller(Frame* frame);

/// Where the frame ends that has its frame record at `record`: the stack pointer when its function
/// has returned. `return_address` is that of a call which the function is in. 0 if it keeps no
/// frame record.
std::uint64_t EndOfFrame(std::uint64_t return_address, std::uint64_t record);

/// How many steps did not fit into a rule since the process began. For tests and benchmarks.
std::uint64_t SlowSteps();

}  // namespace platform::cfi
