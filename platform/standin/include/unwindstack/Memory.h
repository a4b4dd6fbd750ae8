// Stand-in: read access to a process's memory. The adapter's unwinder reads the stack
// itself, so this object only says whose memory is meant.
#pragma once

#include <sys/types.h>

#include <memory>

namespace unwindstack {

class Memory {
 public:
  /// Memory of process `pid`; the adapter supports the calling process alone.
  static std::shared_ptr<Memory> CreateProcessMemoryThreadCached(pid_t pid);

  explicit Memory(pid_t pid) : pid_(pid) {}
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

}  // namespace unwindstack
