// SPDX-License-Identifier: Apache-2.0
// The state of a tracked process on Linux: a file below its root directory that the loader, the
// tracker and the controller map shared.
//
// The loader makes the file when it starts, with mode 0600, and in a forked child when the child
// gets its first command. Its path in /proc/PID/maps tells the controller the root directory. A
// process whose `pid` differs from the file's has inherited the mapping of its parent and has no
// file of its own yet.
//
// All words are lock-free atomics, so that they can be used across processes and in signal
// handlers. Strings are written before `magic` and never change, except report_reason and names of
// hooks. There are no pointers and no sizes that depend on the processor: an x86-64 controller
// reads the file of an emulated aarch64 process.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "protocol/kinds.h"
#include "protocol/protocol.h"

namespace protocol {

/// The file, below the root directory. If a living process has it already (a process that was
/// forked or started with the same root directory), ".PID" is appended; for a process of another
/// PID namespace also "." and the inode of the namespace, if necessary.
inline constexpr char kStatePath[] = "/state";
/// The bytes "MEMLEAKS". Stored last, when the rest of the file is valid.
inline constexpr std::uint64_t kStateMagic = 0x534b41454c4d454d;
/// Changes with the layout of State.
inline constexpr std::uint32_t kStateLayout = 2;

/// Maximum number of posted commands that the process has not carried out yet.
inline constexpr std::uint64_t kMaxPosted = 16;
/// Number of commands in the history.
inline constexpr std::uint64_t kHistory = 64;
/// Maximum number of pairs of library and function whose hooks are in the state.
inline constexpr std::size_t kMaxHookStates = 64;

/// The state of the control thread, which carries out commands.
enum class ControlThread : std::uint32_t {
  kNone,  ///< there is no thread; the control signal requests it
  /// The next call of a function that allocates starts the thread. The control signal also starts
  /// it if it interrupts a wait for work, so the controller repeats the signal in this state.
  kPending,
  /// The thread waits for `bell` to change. A detached process has this value too, although it has
  /// no thread: so no controller sends the control signal, which belongs to the program.
  kRunning,
};

enum class Recording : std::uint32_t { kOff, kOn, kPaused };

struct KindState {
  std::atomic<Recording> recording;
  /// Time of the latest switch, or of the latest clear while recording is on; nanoseconds since
  /// 1970.
  std::atomic<std::int64_t> since_ns;
};

/// How the loader was loaded into the process.
enum class Form : std::uint32_t {
  kPreloaded,
  kAttached,
  kDetached,  ///< was attached; all slots are restored, and commands are not carried out
};

/// The library that carries out a posted command.
enum class Recipient : std::uint32_t {
  kTracker,
  /// The loader. The command is to detach: switches recording off, restores the slots and ends the
  /// control thread. `word` and `parameter` are 0. Fails with EPERM if the loader was preloaded.
  kDetach,
};

struct PostedCommand {
  std::atomic<Recipient> recipient;
  std::atomic<std::uint64_t> word;
  std::atomic<std::uint32_t> parameter;
  /// Valid when `done` counts the command: 0, or an errno value if the command was not carried out
  /// (the control thread could not be started, or the loader cannot detach).
  std::atomic<std::int32_t> error;
};

/// A command that was carried out, posted or received by signal.
struct PastCommand {
  std::atomic<std::uint64_t> number;  ///< counts from 1; 0 while the entry is written
  std::atomic<std::int64_t> time_ns;
  std::atomic<std::uint64_t> word;
  std::atomic<std::uint32_t> parameter;
};

/// The hooks of one function in one library. An error means that the latest attempt to add or to
/// remove a hook failed.
struct HookState {
  char library[kMaxPropertyBytes + 1];
  char function[kMaxPropertyBytes + 1];
  std::atomic<std::uint32_t> hooks;  ///< installed: each "on" adds one, each report removes one
  std::atomic<std::int32_t> error;   ///< of the latest attempt, 0 or an errno value
};

struct State {
  std::atomic<std::uint64_t> magic;
  std::uint32_t layout;
  std::uint32_t bytes;  ///< sizeof(State)
  char version[16];     ///< of the library, as `memleak --version` prints it
  std::int32_t pid;     ///< in the process's own PID namespace
  std::uint32_t reserved;
  std::int64_t start_ns;         ///< when the loader started, since 1970
  std::uint64_t pid_namespace;   ///< inode of /proc/self/ns/pid
  char program[4096];            ///< path of the executable (the guest's under an emulator)
  char arguments[4096];          ///< separated by NUL, cut to fit
  std::uint32_t argument_bytes;  ///< used bytes of `arguments`
  char log[4096];                ///< absolute path of the log; empty: none, or the error output
  char shared_properties[4096];  ///< absolute path of the shared properties; empty: none

  /// The posted commands. The controller holds a lock on the file (flock, LOCK_EX) while it writes
  /// posted[sent % kMaxPosted] and then increments `sent`. The process increments `done` after each
  /// command. Then the controller increments `bell` and wakes its waiters (FUTEX_WAKE, not
  /// FUTEX_PRIVATE_FLAG). If no thread runs, it also sends the control signal with kill, which does
  /// not need room in the signal queue: the process ignores the content of such a signal.
  std::atomic<std::uint64_t> sent;
  std::atomic<std::uint64_t> done;  ///< the controller may wait for it by futex, on its low word
  PostedCommand posted[kMaxPosted];
  std::atomic<std::uint32_t> bell;
  std::atomic<ControlThread> control_thread;
  std::atomic<Form> form;

  /// Commands received by signal, commands carried out from either source, and the latest of them.
  std::atomic<std::uint64_t> received;
  std::atomic<std::uint64_t> carried_out;
  PastCommand history[kHistory];  ///< command n is in history[n % kHistory]

  /// What is recorded. The tracker writes the rest.
  KindState kinds[std::size(kKinds)];
  std::atomic<std::uint32_t> unwind;  ///< the method in force, kUnwindFramePointers, kUnwindTables
  std::atomic<std::uint32_t> depth;   ///< frames per record in force
  /// To get `records`, the controller increments `counts_wanted` and then proceeds as for a posted
  /// command. The control thread counts, sets `counts_done` to `counts_wanted` and wakes its
  /// waiters.
  std::atomic<std::uint32_t> counts_wanted;
  std::atomic<std::uint32_t> counts_done;
  std::atomic<std::uint64_t> records;  ///< live blocks with a record, as of the latest count
  /// Blocks that were not recorded for lack of memory, as of the latest count or report.
  std::atomic<std::uint64_t> dropped;

  std::atomic<std::uint32_t> hook_states;  ///< used entries of `hooks`
  HookState hooks[kMaxHookStates];

  /// Number of reports that were started, and that have ended.
  std::atomic<std::uint32_t> reports_started;
  std::atomic<std::uint32_t> reports_ended;
  std::atomic<std::int32_t> report_thread;  ///< id of the latest report's thread, 0: none, or gone
  std::atomic<std::int32_t> report_error;   ///< of the latest report: 0 if it is complete
  char report_reason[256];                  ///< text for the user if report_error is not 0
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

/// Name of the loader's variable (std::atomic<State*>) by which the tracker finds the state. It
/// points to private memory while the process has no file. Without a loader there is no such
/// variable.
inline constexpr char kStateVariable[] = "memleak_state";

/// Name of the loader's variable (std::atomic<CountRecords>) that the tracker sets.
inline constexpr char kRecordCounter[] = "memleak_record_counter";
/// Stores the number of live records, and of dropped blocks, in the state. The loader calls it on
/// the control thread.
using CountRecords = void (*)();

}  // namespace protocol
