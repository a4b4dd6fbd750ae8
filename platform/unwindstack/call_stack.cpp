// SPDX-License-Identifier: Apache-2.0
// Unwinds the calling thread's stack with libunwindstack, in a platform tree.
#include "platform/call_stack.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "protocol/protocol.h"
#include "unwindstack/Maps.h"
#include "unwindstack/Memory.h"
#include "unwindstack/Regs.h"
#include "unwindstack/RegsGetLocal.h"
#include "unwindstack/Unwinder.h"

namespace platform {
namespace {

/// Shared by all captures. Never destroyed, because threads may capture after main has returned.
struct State {
  unwindstack::LocalUpdatableMaps maps;
  std::shared_ptr<unwindstack::Memory> memory;
  const std::vector<std::string> skipped_libraries{"libunwindstack.so", protocol::kTrackerLibrary};
};
std::atomic<State*> g_state{nullptr};

}  // namespace

bool PrepareCallStacks() {
  std::unique_ptr<State> state;
  try {
    state = std::make_unique<State>();
    state->memory = unwindstack::Memory::CreateProcessMemoryThreadCached(getpid());
    if (!state->maps.Parse()) state.reset();
  } catch (const std::bad_alloc&) {
    state.reset();
  }
  const bool ready = state != nullptr;
  delete g_state.exchange(state.release(), std::memory_order_acq_rel);
  return ready;
}

// The registers describe this function's frame, which must exist during the unwind. So the function
// is not inlined and calls the unwinder itself.
__attribute__((noinline)) std::size_t CallStack(const arch::FrameRecord* /*inner*/,
                                                std::uint64_t* pcs, std::size_t max_pcs) {
  State* state = g_state.load(std::memory_order_acquire);
  if (state == nullptr || max_pcs == 0) return 0;
  const int saved_errno = errno;
  std::size_t count = 0;
  try {
    const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
    unwindstack::RegsGetLocal(regs.get());
    unwindstack::Unwinder unwinder(max_pcs, &state->maps, regs.get(), state->memory);
    // Names are unused, and looking them up would read symbol tables on every allocation.
    unwinder.SetResolveNames(false);
    unwinder.Unwind(&state->skipped_libraries, nullptr);
    for (const unwindstack::FrameData& frame : unwinder.frames()) {
      if (count == max_pcs) break;
      pcs[count++] = frame.pc;
    }
  } catch (const std::bad_alloc&) {
    count = 0;
  }
  errno = saved_errno;
  return count;
}

}  // namespace platform
