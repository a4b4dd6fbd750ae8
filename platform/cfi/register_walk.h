// SPDX-License-Identifier: Apache-2.0
// A walk that tracks all saved registers, for frames that a packed rule cannot describe.
//
// Interprets call-frame information for each frame, without a cache: about a microsecond. Any
// thread, any context.
#pragma once

#include <cstdint>

#include "arch/unwind.h"
#include "platform/cfi/frame_entry.h"
#include "platform/readable_stack.h"

namespace platform::cfi {

class RegisterWalk {
 public:
  /// Starts in the function that this is inlined into.
  __attribute__((always_inline)) RegisterWalk() : stack_(Capture(&registers_)) {}

  /// An empty walk on `stack`. Call EnterInterrupted next.
  explicit RegisterWalk(const ReadableStack& stack) : registers_{}, stack_(stack) {}

  /// Moves to the frame that a signal interrupted. `sp`, an address on this walk's stack, is the
  /// stack pointer at the code that the signal handler returns to. Returns false, with nothing
  /// changed, if the saved registers are invalid.
  bool EnterInterrupted(std::uint64_t sp);

  /// Moves to the caller's frame. Returns false, with nothing changed, if the stack ends here or
  /// the caller cannot be found.
  bool Step();

  std::uint64_t pc() const { return registers_.pc; }
  std::uint64_t sp() const { return registers_.saved[kSp]; }
  std::uint64_t fp() const { return registers_.saved[kFp]; }
  /// The stack that contains sp().
  const ReadableStack& stack() const { return stack_; }
  /// Whether pc() is the next instruction of interrupted code. If not, it is a return address.
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
