// Whose memory the unwinder reads. Called once at start-up.
#include <unwindstack/Memory.h>

namespace unwindstack {

std::shared_ptr<Memory> Memory::CreateProcessMemoryThreadCached(pid_t pid) {
  return std::make_shared<Memory>(pid);
}

}  // namespace unwindstack
