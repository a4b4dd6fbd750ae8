// SPDX-License-Identifier: Apache-2.0
// The calls that change privileges or namespaces. Some fail unless all threads have the same
// credentials, others unless the process has only one thread. So the control thread does not exist
// during these calls. Any thread.
#include <stdarg.h>
#include <sys/prctl.h>
#include <sys/types.h>

#include "host/control_thread.h"
#include "host/exports.h"
#include "host/next_function.h"
#include "host/replaced_functions.h"
#include "host/state.h"

namespace host {
namespace {

/// Calls `next` while there is no control thread. A child of vfork has no such thread.
template <typename Next, typename... Arguments>
int Alone(Next& next, Arguments... arguments) {
  if (!OwnsState()) return next(arguments...);
  const WithoutControlThread alone;
  return next(arguments...);
}

NextFunction<int(uid_t)> next_setuid{"setuid"};
NextFunction<int(gid_t)> next_setgid{"setgid"};
NextFunction<int(uid_t)> next_seteuid{"seteuid"};
NextFunction<int(gid_t)> next_setegid{"setegid"};
NextFunction<int(uid_t, uid_t)> next_setreuid{"setreuid"};
NextFunction<int(gid_t, gid_t)> next_setregid{"setregid"};
NextFunction<int(uid_t, uid_t, uid_t)> next_setresuid{"setresuid"};
NextFunction<int(gid_t, gid_t, gid_t)> next_setresgid{"setresgid"};
NextFunction<int(size_t, const gid_t*)> next_setgroups{"setgroups"};
NextFunction<int(const char*, gid_t)> next_initgroups{"initgroups"};
NextFunction<int(void*, const void*)> next_capset{"capset"};
NextFunction<int(int, unsigned long, unsigned long, unsigned long, unsigned long)> next_prctl{
    "prctl"};
NextFunction<int(int)> next_unshare{"unshare"};
NextFunction<int(int, int)> next_setns{"setns"};

}  // namespace

void FindPrivilegeFunctions() {
  next_setuid.Find();
  next_setgid.Find();
  next_seteuid.Find();
  next_setegid.Find();
  next_setreuid.Find();
  next_setregid.Find();
  next_setresuid.Find();
  next_setresgid.Find();
  next_setgroups.Find();
  next_initgroups.Find();
  next_capset.Find();
  next_prctl.Find();
  next_unshare.Find();
  next_setns.Find();
}

}  // namespace host

MEMLEAK_EXPORT int setuid(uid_t user) noexcept {
  return host::Alone(host::next_setuid, user);
}

MEMLEAK_EXPORT int setgid(gid_t group) noexcept {
  return host::Alone(host::next_setgid, group);
}

MEMLEAK_EXPORT int seteuid(uid_t user) noexcept {
  return host::Alone(host::next_seteuid, user);
}

MEMLEAK_EXPORT int setegid(gid_t group) noexcept {
  return host::Alone(host::next_setegid, group);
}

MEMLEAK_EXPORT int setreuid(uid_t real, uid_t effective) noexcept {
  return host::Alone(host::next_setreuid, real, effective);
}

MEMLEAK_EXPORT int setregid(gid_t real, gid_t effective) noexcept {
  return host::Alone(host::next_setregid, real, effective);
}

MEMLEAK_EXPORT int setresuid(uid_t real, uid_t effective, uid_t saved) noexcept {
  return host::Alone(host::next_setresuid, real, effective, saved);
}

MEMLEAK_EXPORT int setresgid(gid_t real, gid_t effective, gid_t saved) noexcept {
  return host::Alone(host::next_setresgid, real, effective, saved);
}

MEMLEAK_EXPORT int setgroups(size_t count, const gid_t* groups) noexcept {
  return host::Alone(host::next_setgroups, count, groups);
}

MEMLEAK_EXPORT int initgroups(const char* user, gid_t group) {
  return host::Alone(host::next_initgroups, user, group);
}

MEMLEAK_EXPORT int capset(void* header, const void* data) noexcept {
  return host::Alone(host::next_capset, header, data);
}

MEMLEAK_EXPORT int prctl(int option, ...) noexcept {
  unsigned long values[4];
  va_list arguments;
  va_start(arguments, option);
  // Reads all four arguments, although callers pass only those that the option needs: the kernel
  // ignores the rest.
  for (unsigned long& value : values) value = va_arg(arguments, unsigned long);
  va_end(arguments);
  if (option != PR_SET_KEEPCAPS && option != PR_SET_SECUREBITS) {
    return host::next_prctl(option, values[0], values[1], values[2], values[3]);
  }
  return host::Alone(host::next_prctl, option, values[0], values[1], values[2], values[3]);
}

MEMLEAK_EXPORT int unshare(int flags) noexcept {
  return host::Alone(host::next_unshare, flags);
}

MEMLEAK_EXPORT int setns(int file, int type) noexcept {
  return host::Alone(host::next_setns, file, type);
}
