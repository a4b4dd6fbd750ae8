// A walk that follows every register, for frames that a packed rule cannot describe.
//
// Interprets call-frame information anew for each frame: about a microsecond. Any thread, any
// context; needs about 2 KiB of stack.
#pragma once

#include <cstdint>

#include "arch/unwind.h"

namespace platform::cfi {

class RegisterWalk {
 public:
  /// Begins in a frame whose pc is that of an instruction to be run next: the caller's own, or one
  /// that a signal interrupted.
  explicit RegisterWalk(const arch::Registers& registers) : registers_(registers) {}

  /// Begins at the code that a signal handler returns to, in the frame that the signal interrupted.
  /// `sp` is the stack pointer at that code; the frame's place on the stack was checked.
  static RegisterWalk FromSignal(std::uint64_t sp);

  /// Goes on to the caller's frame. False, and nothing changed, where the stack ends or cannot be
  /// followed.
  bool Step();

  std::uint64_t pc() const { return registers_.pc; }
  std::uint64_t sp() const { return registers_.general[arch::kStackPointerColumn]; }
  std::uint64_t fp() const { return registers_.general[arch::kFramePointerColumn]; }
  /// Whether pc() is that of an instruction to be run next, not one behind a call.
  bool interrupted() const { return interrupted_; }

 private:
  arch::Registers registers_;
  bool interrupted_ = true;
};

}  // namespace platform::cfi
