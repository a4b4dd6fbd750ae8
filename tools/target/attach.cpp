// SPDX-License-Identifier: Apache-2.0
// Checks and prepares everything while the process runs. Then the debugger stops the process at a
// safe place, calls dlopen and the loader's function, and detaches.
#include "tools/target/attach.h"

#include <elf.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include "protocol/attach.h"
#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/target/attach_checks.h"
#include "tools/target/debugger_commands.h"
#include "tools/target/find_state.h"
#include "tools/target/inspect.h"
#include "tools/target/launcher.h"
#include "tools/target/mapped_loader.h"
#include "tools/target/root_directory.h"
#include "tools/target/task_status.h"
#include "tools/target/thread_stacks.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long threads get to leave the allocator and the dynamic linker.
constexpr milliseconds kPatience(5000);
// Between the first two attempts. It grows, so that attempts are not in step with a periodic
// process.
constexpr milliseconds kRunOn(5);
constexpr milliseconds kRunToMalloc(200);

constexpr std::uint64_t kRedZone = 128;                    // below the stack pointer of x86-64
constexpr std::uint64_t kNow = 2;                          // RTLD_NOW | RTLD_LOCAL of glibc
constexpr std::uint64_t kLoadedOnly = 4;                   // RTLD_NOLOAD
constexpr std::uint64_t kInternalNow = kNow | 0x80000000;  // for __libc_dlopen_mode

const std::vector<const char*> kLibraries = {protocol::kPreloadLibrary, protocol::kTrackerLibrary};

std::vector<std::string> RootPatterns(bool other_mounts) {
  const std::string name = "memleak.%p";
  std::vector<std::string> patterns = {"/tmp/" + name};
  // The current directory is not in a container.
  if (!other_mounts) patterns.insert(patterns.begin(), (fs::current_path() / name).string());
  return patterns;
}

std::string Absolute(const ProcessInfo& process, const std::string& path, const char* option) {
  if (path.starts_with('/') || path.empty()) return path;
  if (process.outside.empty()) return fs::absolute(path).lexically_normal().string();
  throw UserError(std::string(option) + " is relative, and process " + process.Label() +
                      " has other mounts: " + path,
                  "give an absolute path as the process sees it");
}

/// The root directory of an attach.
struct Root {
  std::string pattern;  ///< absolute, as the process sees it
  bool is_new = false;
};

// Makes the root directory with its properties, as the user of the process.
Root MakeRoot(const ProcessInfo& process, const std::string& given) {
  std::vector<std::string> patterns = {Absolute(process, given, "--root")};
  if (given.empty()) patterns = RootPatterns(!process.outside.empty());
  const AsUserOf user(process);
  for (const std::string& pattern : patterns) {
    const std::string root = process.outside + ExpandPid(pattern, process.inner_pid);
    try {
      const bool is_new = !HasRoot(root);
      if (!ReadProperties(root)) {
        WriteProperties(root, UpdateProperties("", DefaultSettings(OwnMachine())));
      }
      return {pattern, is_new};
    } catch (const UserError&) {
      if (pattern == patterns.back()) throw;
    }
  }
  return {};
}

bool UserCanRead(const ProcessInfo& process, const std::string& directory) {
  const AsUserOf user(process);
  return std::all_of(kLibraries.begin(), kLibraries.end(), [&](const char* name) {
    const int file = open(JoinPath(directory, name).c_str(), O_RDONLY | O_CLOEXEC);
    if (file >= 0) close(file);
    return file >= 0;
  });
}

// Copies the libraries to the root directory, as the user of the process.
void CopyLibraries(const ProcessInfo& process, const std::string& from, const std::string& root) {
  for (const char* name : kLibraries) {
    std::ifstream file(JoinPath(from, name), std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(file)), {});
    const AsUserOf user(process);
    WriteBelowRoot(root, name, content);
  }
}

// The directory, as the process sees it, from which it can load the libraries. That is the one near
// the controller, unless the process has other mounts or its user cannot read them there.
std::string PlaceLibraries(const ProcessInfo& process, const std::string& libdir,
                           const std::string& root) {
  std::string directory = FindLibraries(libdir, OwnMachine());
  if (!process.outside.empty() || !UserCanRead(process, directory)) {
    CopyLibraries(process, directory, process.outside + root);
    directory = root;
  }
  struct statvfs status {};
  if (statvfs(RootedPath(process.outside + directory).c_str(), &status) == 0 &&
      (status.f_flag & ST_NOEXEC) != 0) {
    throw UserError("no code can be loaded from " + process.Shown(process.outside + directory) +
                        ": it is mounted with noexec",
                    directory == root ? "name a directory on another file system with --root DIR"
                                      : "copy the two libraries and name them with --libdir DIR");
  }
  return directory;
}

/// One stop of the process.
class Attachment {
 public:
  explicit Attachment(const ProcessInfo& process)
      : process_(process), debugger_(StartDebugger(process.pid)), memory_(process.pid) {}

  // Stops the process at a place where a thread can call functions.
  void Stop() {
    const auto deadline = steady_clock::now() + kPatience;
    for (milliseconds run_on = kRunOn; !TryToStop(); ++run_on) {
      debugger_->Detach();
      if (steady_clock::now() >= deadline) {
        throw UserError(
            "process " + process_.Label() + " has no thread that can load the tracker: " + why_not_,
            "try again; the process continues unchanged");
      }
      std::this_thread::sleep_for(run_on);
    }
  }

  // Calls dlopen for the loader, which is at `path` or loaded already. Waits until another thread
  // has loaded it.
  void Load(const std::string& path, bool is_loaded) {
    const bool internal = code_->Function("dlopen") == 0;
    const std::uint64_t function = code_->Function(internal ? "__libc_dlopen_mode" : "dlopen");
    if (function == 0) {
      throw UserError("cannot find dlopen in process " + process_.Label(),
                      "start the program with: memleak run -- PROGRAM");
    }
    const std::uint64_t mode = internal ? kInternalNow : kNow;
    handle_ = Call(function, {path}, {is_loaded ? mode | kLoadedOnly : mode});
    if (handle_ != 0) return;
    if (is_loaded) {
      throw UserError("process " + process_.Label() + " has loaded a part of " + path +
                          ": an earlier attach was interrupted",
                      "restart it");
    }
    const std::uint64_t dlerror = code_->Function("dlerror");
    const std::string reason = dlerror == 0 ? "" : memory_.Text(Call(dlerror, {}, {}));
    throw UserError("process " + process_.Label() +
                        " cannot load the tracker: " + Printable(reason.empty() ? path : reason),
                    "check that its user may read and execute the file");
  }

  // Calls the loader's function.
  void Begin(const std::string& root, const std::string& log, const std::string& properties) {
    const std::vector<MappedLoader> loaders = MappedLoader::Find(process_);
    const std::uint64_t bias = memory_.Word(handle_).value_or(0);  // the handle is a link_map
    const auto loader = std::find_if(loaders.begin(), loaders.end(),
                                     [&](const MappedLoader& one) { return one.bias == bias; });
    if (loader == loaders.end()) {
      throw UserError("process " + process_.Label() + " has closed the tracker", "try again");
    }
    const std::uint64_t function = loader->Address(protocol::kAttachFunction);
    const std::uint64_t reason = loader->Address(protocol::kAttachReason);
    has_begun_ = true;
    const auto error = static_cast<int>(Call(function, {root, log, properties}, {}));
    if (error == 0) return;
    has_begun_ = false;
    if (error == EBUSY) throw StartedByRun(process_);
    const std::string text = memory_.Text(reason);
    throw UserError("cannot attach to process " + process_.Label() + ": " +
                    Printable(text.empty() ? std::strerror(error) : text));
  }

  // Whether the process may be attached.
  bool HasBegun() const { return has_begun_; }

  // Continues the process. Returns how long it was stopped.
  microseconds End() {
    debugger_->Detach();
    return std::chrono::duration_cast<microseconds>(steady_clock::now() - stopped_);
  }

 private:
  bool TryToStop() {
    if (const auto thread = UnstoppableThread(process_.pid)) {
      why_not_ = "thread " + std::to_string(*thread) + " is in an uninterruptible system call";
      return false;
    }
    if (!code_ || code_->IsOutdated()) code_ = std::make_unique<ProcessCode>(process_);
    stopped_ = steady_clock::now();
    debugger_->Attach();
    const std::vector<StoppedThread> threads = debugger_->Threads();
    if (threads.empty()) InspectProcess(process_.pid);  // throws if it has ended
    if (threads.empty()) throw Refused(process_, debugger_->LastOutput());
    if (code_->IsOutdated()) {
      why_not_ = "it loads and closes libraries";
      return false;
    }
    if (Choose(threads)) return true;
    if (linker_in_use_ || IsBlocked(process_.pid, SIGTRAP)) return false;
    // All threads compute: wait until one of them allocates.
    RunToMalloc();
    stopped_ = steady_clock::now();
    const std::vector<StoppedThread> later = debugger_->Threads();
    return !code_->IsOutdated() && Choose(later);
  }

  void RunToMalloc() {
    const std::uint64_t function = code_->Malloc();
    const std::uint64_t code = memory_.Word(function).value_or(0);
    try {
      debugger_->RunTo(function, kRunToMalloc);
    } catch (const UserError&) {
      // A debugger that was killed leaves its breakpoint, which would end the process.
      if (code != 0) memory_.Write(function, {reinterpret_cast<const char*>(&code), sizeof code});
      throw;
    }
  }

  // Chooses a thread that can call functions. Returns whether there is one.
  bool Choose(const std::vector<StoppedThread>& threads) {
    thread_.reset();
    linker_in_use_ = false;
    for (const StoppedThread& thread : threads) {
      const Stack stack = code_->StackOf(thread);
      const char* why_not = code_->WhyNot(thread, stack);
      if (why_not == nullptr && !thread_) thread_ = thread;
      if (why_not == nullptr || linker_in_use_) continue;
      // The call would wait for the lock of the dynamic linker, and could not be cancelled.
      linker_in_use_ = stack.Has(Place::kLinker);
      why_not_ = "thread " + std::to_string(thread.number) + " is " + why_not;
    }
    return thread_.has_value() && !linker_in_use_;
  }

  // Calls a function whose first arguments are `texts`, which are put on the stack of the thread.
  // Stops the process again if a signal arrives.
  std::uint64_t Call(std::uint64_t function, const std::vector<std::string>& texts,
                     const std::vector<std::uint64_t>& others) {
    const auto deadline = steady_clock::now() + kPatience;
    while (steady_clock::now() < deadline) {
      if (interrupted_) {
        debugger_->Detach();
        Stop();
      }
      const CallResult result = debugger_->Call(Prepare(function, texts, others));
      interrupted_ = result.interrupted;
      if (result.value) {
        // Continues system calls of all threads that the end of the call has interrupted.
        if (!interrupted_) debugger_->Threads();
        return *result.value;
      }
      if (!interrupted_) throw Failed();
    }
    throw UserError("process " + process_.Label() + " gets too many signals",
                    "try again; the process continues unchanged");
  }

  FunctionCall Prepare(std::uint64_t function, const std::vector<std::string>& texts,
                       const std::vector<std::uint64_t>& others) {
    std::string bytes;
    FunctionCall call{*thread_, 0, function, {}, code_->Function("syscall")};
    for (const std::string& text : texts) {
      call.arguments.push_back(bytes.size());
      bytes += text + '\0';
    }
    call.stack = (thread_->StackPointer() - kRedZone - bytes.size()) & ~std::uint64_t{15};
    for (std::uint64_t& argument : call.arguments) argument += call.stack;
    call.arguments.insert(call.arguments.end(), others.begin(), others.end());
    if (!bytes.empty() && !memory_.Write(call.stack, bytes)) {
      throw UserError("cannot write to the memory of process " + process_.Label(),
                      "run memleak as root");
    }
    return call;
  }

  UserError Failed() {
    const std::string output = debugger_->LastOutput();
    if (!IsAlive(process_.pid)) {
      return UserError("process " + process_.Label() +
                       " has ended while it loaded the tracker: " + output);
    }
    return UserError("a call in process " + process_.Label() + " failed: " + output, "try again");
  }

  const ProcessInfo& process_;
  std::unique_ptr<Debugger> debugger_;
  ProcessMemory memory_;
  std::unique_ptr<ProcessCode> code_;
  std::optional<StoppedThread> thread_;
  bool linker_in_use_ = false;
  bool has_begun_ = false;
  bool interrupted_ = false;  // a signal waits for the thread
  std::uint64_t handle_ = 0;  // of the loader
  std::string why_not_;
  steady_clock::time_point stopped_;
};

// After a failed attach, unless the process uses the libraries there.
void RemoveNewRoot(const ProcessInfo& process, const std::string& root) {
  try {
    std::vector<const char*> files = {protocol::kPropertiesFile, kLibraries[0], kLibraries[1]};
    std::vector<MappedLoader> loaders;
    if (IsAlive(process.pid)) loaders = MappedLoader::Find(process);
    for (const MappedLoader& loader : loaders) {
      if (process.outside + loader.path == JoinPath(root, protocol::kPreloadLibrary)) return;
    }
    // It has ended, or executed another program.
    if (loaders.empty()) files.push_back(protocol::kStatePath + 1);
    const AsUserOf user(process);
    RemoveRoot(root, files);
  } catch (const UserError&) {
    // The error that is reported is the first.
  }
}

}  // namespace

microseconds AttachTo(const ProcessInfo& process, const AttachPlaces& places) {
  CheckAttachable(process);
  const std::string program = ProgramOf(process.pid);
  if (!places.force) CheckFilters(process);
  Attachment attachment(process);
  const std::string log = Absolute(process, places.log, "--log");
  const Root made = MakeRoot(process, places.root);
  const std::string root = ExpandPid(made.pattern, process.inner_pid);
  try {
    const bool is_loaded = !MappedLoader::Find(process).empty();
    std::string path = protocol::kPreloadLibrary;  // its DT_SONAME
    if (!is_loaded) path = JoinPath(PlaceLibraries(process, places.libdir, root), path);
    attachment.Stop();
    attachment.Load(path, is_loaded);
    attachment.Begin(made.pattern, log, JoinPath(root, protocol::kPropertiesFile));
    return attachment.End();
  } catch (const UserError&) {
    if (made.is_new && !attachment.HasBegun()) RemoveNewRoot(process, process.outside + root);
    if (!IsAlive(process.pid) || !HasExecuted(process.pid, program)) throw;
    throw UserError(
        "process " + process.Label() + " has executed another program during the attach",
        "try again");
  }
}

std::vector<std::string> DefaultRoots(pid_t pid) {
  std::vector<std::string> roots = RootPatterns(false);
  for (std::string& root : roots) root = ExpandPid(root, pid);
  return roots;
}

}  // namespace memleak
