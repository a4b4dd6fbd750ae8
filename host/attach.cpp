// SPDX-License-Identifier: Apache-2.0
// Implements protocol/attach.h: starts the loader in a running process. The other threads of the
// process use the allocator at the same time.
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "host/allocator_table.h"
#include "host/control_signal.h"
#include "host/control_thread.h"
#include "host/exit_report.h"
#include "host/exports.h"
#include "host/form.h"
#include "host/linker_calls.h"
#include "host/next_allocator.h"
#include "host/replaced_functions.h"
#include "host/signal_actions.h"
#include "host/slots.h"
#include "host/state.h"
#include "host/tracker.h"
#include "platform/linux/environment.h"
#include "protocol/attach.h"
#include "protocol/protocol.h"

namespace host {
namespace {

int Refuse(Reason& reason, int error, const char* text) {
  reason.Set("%s", text);
  return error;
}

/// Finds the program's functions, and refuses a process whose allocator cannot be replaced.
int FindFunctions(Reason& reason) {
  FindNextAllocator();
  FindReplacedFunctions();
  FindReplacedSlots();
  AddLinkerCalls();
  Dl_info info;
  link_map* object = nullptr;
  if (dladdr1(reinterpret_cast<void*>(NextAllocator().calls.malloc), &info,
              reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP) == 0) {
    return Refuse(reason, ENOTSUP, "the allocator is in no loaded file");
  }
  const char* const slash = strrchr(info.dli_fname, '/');
  if (strcmp(slash != nullptr ? slash + 1 : info.dli_fname, protocol::kPreloadLibrary) == 0) {
    reason.Set("the process was started with %s", info.dli_fname);
    return EBUSY;
  }
  // The dynamic linker has no name for the program.
  if (object->l_name[0] != '\0') return 0;
  reason.Set("%s contains an allocator: its calls of malloc cannot be recorded", info.dli_fname);
  return ENOTSUP;
}

/// Waits for the end of the control thread of an earlier attach.
int EndFormerAttach(Reason& reason) {
  const int error = PrepareControlThread();
  if (error == ESRCH) return Refuse(reason, error, "the process exits");
  return error == 0 ? 0
                    : Refuse(reason, EAGAIN, "the earlier control thread still runs; try again");
}

int RegisterHandlers(Reason& reason) {
  // Called after track_initialize, because fork handlers that are registered later run first.
  static bool keeps_commands = false;
  int error = keeps_commands ? 0 : KeepCommandsAcrossForks();
  keeps_commands = error == 0;
  if (error == 0) error = PrepareExit({0, 0}, FinalizeTracker());
  return error == 0 ? 0 : Refuse(reason, error, strerror(error));
}

int MakeFile(const char* root, Reason& reason) {
  protocol::Refusal refusal;
  if (MakeStateFile(&refusal)) return 0;
  reason.Set("cannot make the state file in %s: %s", root, refusal.Reason());
  return refusal.error != 0 ? refusal.error : EINVAL;
}

int MakeState(const char* root, Reason& reason) {
  InitializeState();
  return MakeFile(root, reason);
}

/// For a child that was forked after the attach, or a process that has changed its user: makes the
/// state file if there is none. Recording continues unchanged.
int MakeOwnFile(const char* root, const char* log, const char* properties, Reason& reason) {
  if (HasStateFile()) return 0;
  int error = 0;
  {
    const WithoutControlThread stopped;
    platform::CaptureValues(root, log, properties);
    error = MakeFile(root, reason);
  }
  if (error != 0) return error;
  StartControlThreadLater();
  StartPendingThread();
  return 0;
}

int Replace(Reason& reason) {
  UseAllocator(TrackedAllocator());
  const SlotScan scan = ReplaceSlots();
  int error = 0;
  if (scan.other_loader) {
    error = Refuse(reason, EEXIST, "another copy of the loader is attached");
  } else if (scan.unwritable != 0) {
    error = EACCES;
    reason.Set("cannot change the calls of %s",
               scan.object[0] != '\0' ? scan.object : "the program");
  } else if (scan.changed == 0) {
    error = Refuse(reason, ENOTSUP, "no loaded file calls malloc through the dynamic linker");
  }
  if (error == 0) return 0;
  RestoreSlots();
  UseAllocator(NextAllocator());
  return error;
}

int Attach(const char* root, const char* log, const char* properties, Reason& reason) {
  if (CurrentForm() == Form::kPreloaded) {
    return Refuse(reason, EBUSY, "the process was started with the loader");
  }
  if (root == nullptr || root[0] != '/') {
    return Refuse(reason, EINVAL, "the root directory is not an absolute path");
  }
  if (CurrentForm() == Form::kAttached) return MakeOwnFile(root, log, properties, reason);
  int error = FindFunctions(reason);
  if (error == 0) error = EndFormerAttach(reason);
  if (error != 0) return error;
  platform::CaptureValues(root, log, properties);
  // Before the tracker installs its handler.
  error = InstallControlSignal();
  if (error != 0) return Refuse(reason, error, strerror(error));
  error = StartTracker(reason) ? RegisterHandlers(reason) : ELIBACC;
  if (error == 0) error = MakeState(root, reason);
  if (error == 0) error = Replace(reason);
  if (error != 0) {
    UninstallHandler();
    return error;
  }
  SetForm(Form::kAttached);
  // Safe: the debugger has chosen a thread that holds no lock. Without this call, a process that
  // does not allocate would start its control thread late.
  StartControlThreadLater();
  StartPendingThread();
  return 0;
}

}  // namespace
}  // namespace host

// protocol::kAttachReason. Protected, so that each loaded copy of the loader uses its own buffer.
extern "C" __attribute__((
    visibility("protected"))) char memleak_attach_reason[protocol::kAttachReasonBytes];
char memleak_attach_reason[protocol::kAttachReasonBytes] = "";

// protocol::kAttachFunction. One call at a time.
MEMLEAK_EXPORT int memleak_attach(const char* root, const char* log, const char* properties) {
  const int saved_errno = errno;
  host::Reason reason;
  const int error = host::Attach(root, log, properties, reason);
  snprintf(memleak_attach_reason, sizeof memleak_attach_reason, "%.*s",
           static_cast<int>(sizeof memleak_attach_reason) - 1, reason.text);
  errno = saved_errno;
  return error;
}
