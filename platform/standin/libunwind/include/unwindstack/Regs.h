// Stand-in: the register state from which an unwind starts.
#pragma once

// libunwind's own names come in through its context type; only this process is unwound.
#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "platform/standin/regs.h"

namespace unwindstack {

/// Registers of the calling process, as libunwind keeps them.
class RegsLocal : public Regs {
 public:
  ArchEnum Arch() override;

  unw_context_t context;
  /// Frame address of the function that filled the registers.
  void* frame = nullptr;
};

/// Fills `regs` with the register state of the calling function, which must not return before the
/// unwind ends. Inlined so that the state is the caller's own. Allocates nothing.
__attribute__((always_inline)) inline void RegsGetLocal(Regs* regs) {
  auto* local = static_cast<RegsLocal*>(regs);
  local->frame = __builtin_frame_address(0);
  unw_getcontext(&local->context);
}

}  // namespace unwindstack
