// A library that unwinds from inside itself, as the tracker does when it records an allocation.
#include "unwind_fixture.h"

#include <unistd.h>
#include <unwindstack/Unwinder.h>

#include <memory>

#define FIXTURE_EXPORT extern "C" __attribute__((visibility("default"), noinline))

namespace {

// The maps are read when the first capture comes, and hold what is loaded by then.
unwindstack::LocalUpdatableMaps& Maps() {
  static unwindstack::LocalUpdatableMaps maps;
  static const bool parsed = maps.Parse();
  (void)parsed;
  return maps;
}

__attribute__((noinline)) void Unwind(Capture* capture) {
  const std::vector<std::string> skipped{"libother.so", UNWIND_FIXTURE_NAME};
  const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
  unwindstack::RegsGetLocal(regs.get());
  unwindstack::Unwinder unwinder(capture->limit, &Maps(), regs.get(),
                                 unwindstack::Memory::CreateProcessMemoryThreadCached(getpid()));
  unwinder.SetResolveNames(capture->names);
  unwinder.Unwind(capture->skip ? &skipped : nullptr, nullptr);
  for (const unwindstack::FrameData& frame : unwinder.frames()) capture->pcs.push_back(frame.pc);
}

}  // namespace

FIXTURE_EXPORT void FixtureCapture(Capture* capture) {
  Unwind(capture);
  __asm__ volatile("");  // no tail call: this is a frame of its own
}

FIXTURE_EXPORT void FixtureCall(void (*function)(Capture*), Capture* capture) {
  function(capture);
  __asm__ volatile("");
}
