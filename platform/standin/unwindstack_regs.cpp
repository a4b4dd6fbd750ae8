// Register state from which an unwind starts. Any thread; on the allocation path.
#include <unwindstack/Regs.h>

#include "arch/frame.h"

namespace unwindstack {

// Left uninitialized on purpose: the state may be large, and RegsGetLocal fills it.
Regs* Regs::CreateFromLocal() {
  return new RegsLocal;
}

ArchEnum RegsLocal::Arch() {
  return static_cast<ArchEnum>(arch::kUnwindstackArch);
}

}  // namespace unwindstack
