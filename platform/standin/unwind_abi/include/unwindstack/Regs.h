// Stand-in: where an unwind by the C++ runtime's unwinder starts.
#pragma once

#include "platform/standin/regs.h"

namespace unwindstack {

/// The C++ runtime's unwinder takes its own registers and always starts from where it is called:
/// all that is kept is which of the frames is the first that counts.
class RegsLocal : public Regs {
 public:
  ArchEnum Arch() override;

  /// Frame address of the function that filled the registers.
  void* frame = nullptr;
};

/// Fills `regs` with the place of the calling function, which must not return before the unwind
/// ends; the unwind runs on the same thread. Inlined so that the place is the caller's own.
/// Allocates nothing.
__attribute__((always_inline)) inline void RegsGetLocal(Regs* regs) {
  static_cast<RegsLocal*>(regs)->frame = __builtin_frame_address(0);
}

}  // namespace unwindstack
