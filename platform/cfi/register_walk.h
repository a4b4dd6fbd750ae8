// SPDX-License-Identifier: Apache-2.0
// A walk that follows every register, for frames that a packed rule cannot describe.
//
// Interprets call-frame information anew for each frame: about a microsecond. Any thread, any
// context.
#pragma once

#include <cstdint>

#include "arch/unwind.h"
#include "platform/cfi/frame_entry.h"
#include "platform/readable_stack.h"

namespace platform::cfi {

class RegisterWalk {
 public:
  /// Begins in the function that this is inlined into.
  __attribute__((always_inline)) RegisterWalk() : stack_(Capture(&registers_)) {}

  /// An empty walk on `stack`. Call EnterInterrupted next.
  explicit RegisterWalk(const ReadableStack& stack) : registers_{}, stack_(stack) {}

  /// Goes to the frame that a signal interrupted. `sp`, on this walk's stack, is the stack pointer
  /// at the code that the signal's handler returns to. Returns false and changes nothing when the
  /// saved registers are not valid.
  bool EnterInterrupted(std::uint64_t sp);

  /// Goes on to the caller's frame. Returns false and changes nothing where the stack ends or
  /// cannot be followed.
  bool Step();

  std::uint64_t pc() const { return registers_.pc; }
  std::uint64_t sp() const { return registers_.saved[kSp]; }
  std::uint64_t fp() const { return registers_.saved[kFp]; }
  /// The stack that sp() is on.
  const ReadableStack& stack() const { return stack_; }
  /// Whether pc() is that of an instruction to be run next, not one behind a call.
  bool interrupted() const { return interrupted_; }

 private:
  static constexpr std::size_t kSp = arch::SavedIndex(arch::kStackPointerColumn);
  static constexpr std::size_t kFp = arch::SavedIndex(arch::kFramePointerColumn);

  /// Fills `registers` and returns the stack pointer.
  __attribute__((always_inline)) static std::uint64_t Capture(arch::Registers* registers) {
    arch::CaptureRegisters(registers);
    return registers->saved[kSp];
  }

  bool StepByEntry(const FrameEntry& entry, std::uint64_t address);
  bool GoTo(const arch::Registers& registers, bool interrupted);

  arch::Registers registers_;
  ReadableStack stack_;
  bool interrupted_ = true;
};

}  // namespace platform::cfi
