// Register state from which an unwind starts. Any thread; on the allocation path.
#include <unwindstack/Regs.h>

namespace unwindstack {
namespace {

#if defined(UNW_TARGET_AARCH64)
constexpr ArchEnum kLocalArch = ARCH_ARM64;
#else
constexpr ArchEnum kLocalArch = ARCH_X86_64;
#endif

}  // namespace

// Left uninitialized on purpose: the context is large, and RegsGetLocal fills it.
Regs* Regs::CreateFromLocal() {
  return new RegsLocal;
}

ArchEnum RegsLocal::Arch() {
  return kLocalArch;
}

}  // namespace unwindstack
