// SPDX-License-Identifier: Apache-2.0
// How the controller loads the loader into a process that already runs (Linux only).
//
// A debugger calls dlopen for the loader, with RTLD_NOW | RTLD_LOCAL, on a thread of the process
// that uses neither the allocator nor the dynamic linker. The loader's constructor does nothing in
// this case. Then the debugger calls kAttachFunction on the same thread. All later commands,
// including the command to detach, are sent through the state file (protocol/state.h).
#pragma once

#include <cstddef>

namespace protocol {

/// The loader's exported function: int memleak_attach(const char* root, const char* log, const
/// char* properties).
///
/// `root` and `log` are absolute paths, in which "%p" is replaced by the process id. `log` and
/// `properties` may be empty: then there is no log and no shared property file. The strings are
/// copied. Returns 0 if the process is attached, also if it was attached before. Otherwise returns
/// an errno value, stores one line in kAttachReason and leaves the process unchanged:
///   EBUSY    the loader was preloaded
///   EEXIST   another copy of the loader is attached
///   EAGAIN   the control thread of an earlier attach still runs: try again
///   ESRCH    the process exits
///   ENOTSUP  the allocator cannot be replaced
///   EACCES   a slot cannot be written
///   ELIBACC  the tracker cannot be loaded
/// and other values from the system. In an attached process without a state file, such as a forked
/// child, makes the file below `root`. May be called again after a detach. Keeps errno and the
/// caller's signal mask. One call at a time.
inline constexpr char kAttachFunction[] = "memleak_attach";
using AttachFunction = int(const char* root, const char* log, const char* properties);

/// The loader's exported buffer, char[kAttachReasonBytes]: why the latest attach failed. Ends with
/// a NUL.
inline constexpr char kAttachReason[] = "memleak_attach_reason";
inline constexpr std::size_t kAttachReasonBytes = 256;

}  // namespace protocol
