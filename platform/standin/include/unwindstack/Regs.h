// Stand-in: where an unwind starts.
#pragma once

namespace unwindstack {

/// The C++ runtime's unwinder reads the registers itself, so there is nothing to keep.
class Regs {
 public:
  /// Registers of this process, not filled yet. The caller owns them. Allocates.
  static Regs* CreateFromLocal() { return new Regs; }
};

/// Fills `regs` with the register state of the calling function. Any thread, any context.
inline void RegsGetLocal(Regs* /*regs*/) {}

}  // namespace unwindstack
