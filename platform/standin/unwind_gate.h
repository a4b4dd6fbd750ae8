// Keeps fork and unwinding apart.
//
// libunwind looks unknown frames up under a lock of its own. A process that forks while another
// thread holds it would leave its child with a lock that nobody ever lets go, and the child's first
// unwind would hang. So fork waits for the unwinds that are under way, and those that come
// meanwhile wait for fork.
#pragma once

namespace platform {

/// Registers the fork handlers, once a process however often it is called. At start-up; allocates.
void InstallUnwindGate();

/// Marks an unwind of the calling thread for as long as it exists. Takes no lock and keeps errno;
/// waits while the process forks, for at most 50 milliseconds: a lock that the calling thread holds
/// may be the one that the forking thread is waiting for. (Fork waits no longer either.)
class UnwindPass {
 public:
  UnwindPass();
  ~UnwindPass();
  UnwindPass(const UnwindPass&) = delete;
  UnwindPass& operator=(const UnwindPass&) = delete;

 private:
  const unsigned slot_;
};

}  // namespace platform
