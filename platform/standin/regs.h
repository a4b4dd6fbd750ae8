// Stand-in: what the register state is to those who only pass it on; each adapter of an unwinder
// adds its own state in unwindstack/Regs.h.
//
// Made and used within one unwind, on its thread.
#pragma once

#include <cstdint>

namespace unwindstack {

enum ArchEnum : std::uint8_t { ARCH_UNKNOWN = 0, ARCH_ARM64 = 2, ARCH_X86_64 = 4 };

class Regs {
 public:
  virtual ~Regs() = default;
  /// The architecture whose registers these are. Any thread.
  virtual ArchEnum Arch() = 0;

  /// Registers of this process's architecture, not filled yet; owned by the caller.
  static Regs* CreateFromLocal();
};

}  // namespace unwindstack
