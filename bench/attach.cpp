// SPDX-License-Identifier: Apache-2.0
// A library for bench/compare that attaches the loader before `main`, as a debugger does, and
// starts recording. MEMLEAK_BENCH_LOADER is the path of the loader.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "protocol/attach.h"
#include "protocol/state.h"

namespace {

bool Attach() {
  void* const loader = dlopen(std::getenv("MEMLEAK_BENCH_LOADER"), RTLD_NOW | RTLD_LOCAL);
  if (loader == nullptr) return false;
  auto* const attach =
      reinterpret_cast<protocol::AttachFunction*>(dlsym(loader, protocol::kAttachFunction));
  const auto* const state =
      static_cast<std::atomic<protocol::State*>*>(dlsym(loader, protocol::kStateVariable));
  const char* const root = std::getenv(protocol::kRootVariable);
  if (root == nullptr || attach(root, "", "") != 0) return false;
  siginfo_t info = protocol::MakeRecord(protocol::control_signal, {protocol::kNative.On(), 0});
  syscall(SYS_rt_sigqueueinfo, getpid(), protocol::control_signal, &info);
  while (state->load()->kinds[protocol::NATIVE].recording != protocol::Recording::kOn) {
    // The loader starts its thread in this allocation, which the compiler must not remove.
    void* volatile block = std::malloc(1);
    std::free(block);
  }
  return true;
}

__attribute__((constructor)) void Load() {
  if (Attach()) return;
  std::fputs("bench/attach: cannot attach\n", stderr);
  std::exit(1);
}

}  // namespace
