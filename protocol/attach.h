// SPDX-License-Identifier: Apache-2.0
// How the controller brings the loader into a process that already runs (Linux only).
//
// A debugger calls dlopen on the loader, with RTLD_NOW | RTLD_LOCAL, on a thread of the process
// that uses neither the allocator nor the dynamic linker. Loaded this way, the loader does nothing
// by itself. Then the debugger calls kAttachFunction on the same thread. From then on the state
// file (protocol/state.h) carries all commands, also the one that detaches.
#pragma once

#include <cstddef>

namespace protocol {

/// The loader's exported function: int memleak_attach(const char* root, const char* log, const
/// char* properties).
///
/// The paths are absolute, "%p" in them is replaced; `log` and `properties` may be empty: none.
/// They may be on the caller's stack. Returns 0 if the process is attached or was attached already,
/// else an errno value; then kAttachReason has one line and the process is as before:
///   EBUSY    the loader was preloaded
///   EEXIST   another copy of the loader is attached
///   EAGAIN   the control thread of the former attach still runs: try again
///   ESRCH    the process exits
///   ENOTSUP  the allocator cannot be replaced
///   EACCES   a slot cannot be written
///   ELIBACC  the tracker cannot be loaded
/// and others from the system. A forked child without a state file gets one below `root`. Call it
/// again after a detach to attach again. The signal mask of the caller stays as it is.
inline constexpr char kAttachFunction[] = "memleak_attach";
using AttachFunction = int(const char* root, const char* log, const char* properties);

/// The loader's exported buffer, char[kAttachReasonBytes]: why the latest attach failed. NUL at its
/// end.
inline constexpr char kAttachReason[] = "memleak_attach_reason";
inline constexpr std::size_t kAttachReasonBytes = 256;

}  // namespace protocol
