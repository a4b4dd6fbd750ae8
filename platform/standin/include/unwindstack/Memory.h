// Stand-in: read access to a process's memory. The unwinder reads the stack itself.
#pragma once

#include <sys/types.h>

#include <memory>

namespace unwindstack {

class Memory {
 public:
  /// Memory of process `pid`, which is the calling one. Allocates.
  static std::shared_ptr<Memory> CreateProcessMemoryThreadCached(pid_t /*pid*/) {
    return std::make_shared<Memory>();
  }
};

}  // namespace unwindstack
