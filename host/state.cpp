// SPDX-License-Identifier: Apache-2.0
// Makes the state file and moves the state from private memory to it.
//
// The file is written completely and its space is allocated before it is mapped, because a write to
// a mapped page without space would end the process. An old file is replaced, never truncated,
// because another process may still map it.
#include "host/state.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/clock.h"
#include "host/exports.h"
#include "host/fork_page.h"
#include "host/form.h"
#include "platform/linux/root.h"
#include "platform/raw_calls.h"

namespace host {
namespace {

State private_state;
// The mapped file of this process or of an ancestor; null if there is none.
std::atomic<State*> mapped_state{nullptr};
// The process that owns the state, and the process that has made the mapped file.
MEMLEAK_FORK_PAGE std::atomic<pid_t> owner{0};
std::atomic<pid_t> file_owner{0};
std::atomic_flag making = ATOMIC_FLAG_INIT;
// Static: signal handlers may run on a small stack. Guarded by `making`.
char file_path[platform::kPathBytes];

/// Identifies the PID namespace of this process; 0 if that is unknown.
uint64_t PidNamespace() {
  struct stat status;
  return stat("/proc/self/ns/pid", &status) == 0 ? status.st_ino : 0;
}

// protocol::kStateVariable.
MEMLEAK_VARIABLE std::atomic<State*> memleak_state;
MEMLEAK_FORK_PAGE std::atomic<State*> memleak_state{&private_state};
// protocol::kPathsVariable.
MEMLEAK_VARIABLE std::atomic<const protocol::Paths*> memleak_paths;
std::atomic<const protocol::Paths*> memleak_paths{&platform::CapturedPaths()};

// protocol::kSwitchOff.
MEMLEAK_VARIABLE std::atomic<void (*)()> memleak_switch_off;
std::atomic<void (*)()> memleak_switch_off{nullptr};

std::atomic<Form> form{Form::kPreloaded};

/// Copies the captured path of `variable` to `path`, "%p" replaced and absolute. Empty if it is
/// unset or too long.
void CopyPath(platform::Variable variable, char (&path)[4096]) {
  path[0] = '\0';
  const char* pattern = platform::CapturedValue(variable);
  if (pattern == nullptr || strcmp(pattern, protocol::kLogToStderr) == 0) return;
  static char expanded[platform::kPathBytes];
  const size_t length = platform::ExpandPath(pattern, "", expanded);
  size_t start = 0;
  if (expanded[0] != '/') {
    // The result counts the NUL.
    const long bytes = syscall(SYS_getcwd, path, sizeof path);
    if (bytes > 0) start = static_cast<size_t>(bytes);
    if (start > 0) path[start - 1] = '/';
  }
  if (start + length < sizeof path && (start > 0 || expanded[0] == '/')) {
    memcpy(path + start, expanded, length + 1);
  } else {
    path[0] = '\0';
  }
}

/// Returns whether the state file belongs to a living process other than this one. Also returns
/// true if the file is from another PID namespace, whose processes cannot be looked up.
bool BelongsToAnother(int file) {
  constexpr size_t kBytes = offsetof(State, program);
  char start[kBytes];
  if (platform::RawRead(file, start, kBytes) != static_cast<ssize_t>(kBytes)) return false;
  uint64_t magic;
  pid_t pid;
  memcpy(&magic, start, sizeof magic);
  memcpy(&pid, start + offsetof(State, pid), sizeof pid);
  uint64_t pid_namespace;
  memcpy(&pid_namespace, start + offsetof(State, pid_namespace), sizeof pid_namespace);
  if (magic != protocol::kStateMagic || pid <= 0) return false;
  if (pid_namespace != PidNamespace()) return true;
  if (pid == getpid()) return false;
  return kill(pid, 0) == 0 || errno == EPERM;
}

/// Removes the file `name` if it belongs to no living process. Returns whether the name is free.
bool RemoveStale(int directory, const char* name) {
  protocol::Refusal refusal;
  const int file = protocol::OpenFile(directory, name, protocol::Use::kRead, refusal);
  if (file < 0) return refusal.error == ENOENT;
  // If several processes find the stale file, one removes it, and none removes the file that
  // replaces it.
  struct stat opened;
  struct stat named;
  const bool removed = flock(file, LOCK_EX | LOCK_NB) == 0 && !BelongsToAnother(file) &&
                       fstat(file, &opened) == 0 &&
                       fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
                       opened.st_ino == named.st_ino && unlinkat(directory, name, 0) == 0;
  platform::RawClose(file);
  return removed;
}

/// Creates the file and writes its path to `file_path`. Returns a descriptor; on failure -1, with
/// `refusal`.
int CreateFile(protocol::Refusal& refusal) {
  const size_t length = platform::RootedPath(protocol::kStatePath, file_path);
  const size_t root_bytes = length - strlen(protocol::kStatePath);
  const int directory =
      protocol::OpenDirectoryOf(file_path, root_bytes, protocol::Missing::kMake, refusal);
  if (directory < 0) return -1;
  char* const name = file_path + root_bytes + 1;
  // Two PID namespaces may have processes with the same id.
  char suffixes[3][48] = {};
  snprintf(suffixes[1], sizeof suffixes[1], ".%d", getpid());
  snprintf(suffixes[2], sizeof suffixes[2], ".%d.%llu", getpid(),
           static_cast<unsigned long long>(PidNamespace()));
  int file = -1;
  for (const auto& suffix : suffixes) {
    const size_t bytes = strlen(suffix) + 1;
    if (file >= 0 || length + bytes > platform::kPathBytes) break;
    memcpy(file_path + length, suffix, bytes);
    if (!RemoveStale(directory, name)) continue;
    file = protocol::OpenFile(directory, name, protocol::Use::kCreate, refusal);
  }
  platform::RawClose(directory);
  return file;
}

/// Returns whether all of `state` was written.
bool Write(int file, const State& state) {
  const auto* bytes = reinterpret_cast<const char*>(&state);
  size_t done = 0;
  while (done < sizeof state) {
    const ssize_t count = platform::RawWrite(file, bytes + done, sizeof state - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

/// Writes the private state to a new file and maps it at the address of the former file, which
/// other threads may still read. Returns null, with `refusal`, if that fails.
State* MapNewFile(protocol::Refusal& refusal) {
  // A write beyond the limit for file sizes would raise SIGXFSZ.
  rlimit limit;
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur < sizeof(State)) {
    refusal = {0, EFBIG, nullptr};
    return nullptr;
  }
  const int file = CreateFile(refusal);
  if (file < 0) return nullptr;
  void* mapped = MAP_FAILED;
  if (Write(file, private_state)) {
    State* const former = mapped_state.load();
    mapped = mmap(former, sizeof(State), PROT_READ | PROT_WRITE,
                  MAP_SHARED | (former != nullptr ? MAP_FIXED : 0), file, 0);
  }
  refusal = {0, errno, nullptr};
  platform::RawClose(file);
  if (mapped != MAP_FAILED) return static_cast<State*>(mapped);
  unlink(file_path);
  return nullptr;
}

void CopyRecording(const State& from) {
  bool recorded = false;
  for (const protocol::KindState& kind : from.kinds) recorded = recorded || kind.since_ns != 0;
  if (!recorded) return;
  State& to = private_state;
  for (size_t i = 0; i < std::size(to.kinds); ++i) {
    to.kinds[i].recording = from.kinds[i].recording.load();
    to.kinds[i].since_ns = from.kinds[i].since_ns.load();
  }
  to.unwind = from.unwind.load();
  to.depth = from.depth.load();
  const uint32_t hooks = from.hook_states;
  for (size_t i = 0; i < hooks && i < std::size(to.hooks); ++i) {
    memcpy(to.hooks[i].library, from.hooks[i].library, sizeof to.hooks[i].library);
    memcpy(to.hooks[i].function, from.hooks[i].function, sizeof to.hooks[i].function);
    to.hooks[i].hooks = from.hooks[i].hooks.load();
    to.hooks[i].error = from.hooks[i].error.load();
  }
  to.hook_states = hooks;
}

/// Copies the arguments to the private state in the format of /proc/PID/cmdline, cut to fit.
/// Returns the number of bytes.
ssize_t CopyArguments(int count, char* const* arguments) {
  constexpr size_t kBytes = sizeof private_state.arguments - 1;
  size_t used = 0;
  for (int i = 0; i < count; ++i) {
    const size_t bytes = strnlen(arguments[i], kBytes - used);
    memcpy(private_state.arguments + used, arguments[i], bytes);
    used += bytes;
    if (used < kBytes) ++used;
  }
  return static_cast<ssize_t>(used);
}

/// Removes traces of the parent's commands and reports.
void ClearCounters(State& state) {
  state.sent = 0;
  state.done = 0;
  state.received = 0;
  state.carried_out = 0;
  state.counts_wanted = 0;
  state.counts_done = 0;
  for (protocol::PastCommand& past : state.history) past.number = 0;
  state.reports_started = 0;
  state.reports_ended = 0;
  state.report_thread = 0;
  state.report_error = 0;
}

}  // namespace

State& CurrentState() {
  return *memleak_state.load(std::memory_order_acquire);
}

void (*SwitchOffFunction())() {
  return memleak_switch_off.load();
}

Form CurrentForm() {
  return form.load(std::memory_order_relaxed);
}

void SetForm(Form changed) {
  form.store(changed);
  CurrentState().form.store(changed);
  // Forked children start with the private state.
  private_state.form.store(changed);
}

bool OwnsState() {
  return owner.load() == getpid();
}

void InitializeState(int argument_count, char* const* arguments) {
  State& state = private_state;
  memset(static_cast<void*>(&state), 0, sizeof state);
  owner = getpid();
  file_owner = 0;
  state.form = form.load();
  state.layout = protocol::kStateLayout;
  state.bytes = sizeof(State);
  snprintf(state.version, sizeof state.version, "%s", MEMLEAK_VERSION);
  state.start_ns = UnixNs();
  // readlink cuts the path to fit and writes no NUL: the state is zeroed.
  [[maybe_unused]] const ssize_t length =
      readlink("/proc/self/exe", state.program, sizeof state.program - 1);
  const int file = platform::RawOpen("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  ssize_t bytes = 0;
  if (file >= 0) {
    bytes = platform::RawRead(file, state.arguments, sizeof state.arguments - 1);
    platform::RawClose(file);
  } else {
    bytes = CopyArguments(argument_count, arguments);
  }
  // If the arguments were cut, the last one has no NUL.
  if (bytes > 0) {
    const size_t used = protocol::ArgumentBytes(state.arguments, static_cast<size_t>(bytes));
    state.argument_bytes = static_cast<uint32_t>(used) + (state.arguments[used - 1] != '\0');
  }
}

bool MakeStateFile(protocol::Refusal* refusal) {
  if (HasStateFile()) return true;
  if (platform::CapturedValue(platform::Variable::kRoot) == nullptr || making.test_and_set()) {
    return false;
  }
  private_state.pid = getpid();
  private_state.pid_namespace = PidNamespace();
  CopyPath(platform::Variable::kLog, private_state.log);
  CopyPath(platform::Variable::kProperties, private_state.shared_properties);
  protocol::Refusal ignored;
  State* const fresh = MapNewFile(refusal != nullptr ? *refusal : ignored);
  if (fresh != nullptr) {
    fresh->magic.store(protocol::kStateMagic);
    file_owner = getpid();
    memleak_state.store(fresh, std::memory_order_release);
    mapped_state.store(fresh);
  }
  making.clear();
  return fresh != nullptr;
}

bool HasStateFile() {
  return file_owner.load() == getpid();
}

void ForkState(bool rested) {
  owner = getpid();
  const State& former = CurrentState();
  memleak_state.store(&private_state, std::memory_order_release);
  if (rested) return;
  making.clear();
  if (&former != &private_state) CopyRecording(former);
  ClearCounters(private_state);
  private_state.control_thread = protocol::ControlThread::kNone;
}

bool Records() {
  for (const protocol::KindState& kind : CurrentState().kinds) {
    if (kind.recording.load() != protocol::Recording::kOff) return true;
  }
  return false;
}

void RememberCommand(const protocol::Command& command) {
  State& state = CurrentState();
  const uint64_t number = state.carried_out.load() + 1;
  protocol::PastCommand& past = state.history[number % protocol::kHistory];
  past.number.store(0);
  past.time_ns.store(UnixNs());
  past.word.store(command.word);
  past.parameter.store(command.parameter);
  past.number.store(number);
  state.carried_out.store(number);
}

void WaitWhile(std::atomic<uint32_t>& word, uint32_t value, int64_t timeout_ms) {
  timespec left{static_cast<time_t>(timeout_ms / 1000),
                static_cast<long>(timeout_ms % 1000 * 1'000'000)};
  syscall(SYS_futex, &word, FUTEX_WAIT, value, timeout_ms < 0 ? nullptr : &left, nullptr, 0);
}

void WakeWaiters(std::atomic<uint32_t>& word) {
  syscall(SYS_futex, &word, FUTEX_WAKE, 0x7fffffff, nullptr, nullptr, 0);
}

void RingBell() {
  std::atomic<uint32_t>& bell = CurrentState().bell;
  bell.fetch_add(1);
  WakeWaiters(bell);
}

}  // namespace host
