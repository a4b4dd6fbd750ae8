// SPDX-License-Identifier: Apache-2.0
// Unwinds with libdwfl, from registers that the debugger has read. The C library's functions are
// known by the symbols that it exports; its internal functions stand between them.
#include "tools/target/thread_stacks.h"

#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <set>
#include <string_view>

#include "tools/base/files.h"
#include "tools/base/user_error.h"
#include "tools/target/elf_symbols.h"
#include "tools/target/inspect.h"

namespace memleak {
namespace {

// What dlopen and the loader need, with a reserve. Stacks of coroutines may be smaller.
constexpr std::uint64_t kStackRoom = std::uint64_t{96} * 1024;

// Where the Go runtime keeps its heap, which also has the stacks of goroutines: they are too small
// for calls, and look like any other memory.
constexpr std::uint64_t kGoHeap = 0xc0'0000'0000;
constexpr std::uint64_t kGoHeapEnd = 0xc8'0000'0000;

// All functions of the C library's allocator that it exports. One source file has them and their
// internal functions, so nothing else is between them.
const std::set<std::string_view> kAllocator = {
    "malloc",    "free",    "calloc",         "realloc",           "memalign",    "aligned_alloc",
    "valloc",    "pvalloc", "malloc_trim",    "malloc_stats",      "malloc_info", "mallinfo",
    "mallinfo2", "mallopt", "posix_memalign", "malloc_usable_size"};

const std::set<std::string_view> kLinker = {"dlopen",
                                            "dlmopen",
                                            "dlclose",
                                            "dlsym",
                                            "dlvsym",
                                            "dladdr",
                                            "dladdr1",
                                            "dlinfo",
                                            "dlerror",
                                            "dl_iterate_phdr",
                                            "__libc_dlopen_mode",
                                            "__libc_dlsym",
                                            "__libc_dlclose"};

// Also functions that wait under the lock of the thread stacks, which pthread_create needs.
const std::set<std::string_view> kFork = {
    "fork",         "_Fork",          "vfork",
    "posix_spawn",  "posix_spawnp",   "exit",
    "quick_exit",   "__cxa_finalize", "pthread_create",
    "pthread_exit", "setuid",         "setgid",
    "seteuid",      "setegid",        "setreuid",
    "setregid",     "setresuid",      "setresgid",
    "setgroups",    "initgroups",     "pthread_setattr_default_np"};

// The code to which a signal handler returns: rt_sigreturn.
#ifdef __aarch64__
constexpr std::uint64_t kTrampoline = 0xd4000001d2801168;  // mov x8, #139; svc #0
#else
constexpr std::uint64_t kTrampoline = 0x0f0000000fc0c748;  // mov $15, %rax; syscall
#endif

std::string CodeOf(const std::vector<Mapping>& mappings) {
  std::string text;
  for (const Mapping& mapping : mappings) {
    if (mapping.executable && mapping.IsFile()) {
      text += std::to_string(mapping.start) + " " + mapping.path + "\n";
    }
  }
  return text;
}

bool Defines(const std::vector<ElfSymbol>& symbols, std::string_view name) {
  return std::any_of(symbols.begin(), symbols.end(), [&](const ElfSymbol& symbol) {
    return symbol.is_function && symbol.name == name;
  });
}

template <typename Range>
const Range* Find(const std::map<std::uint64_t, Range>& ranges, std::uint64_t address) {
  auto range = ranges.upper_bound(address);
  if (range == ranges.begin()) return nullptr;
  --range;
  return address < range->second.end ? &range->second : nullptr;
}

}  // namespace

/// libdwfl's view of the process.
struct ProcessCode::Unwinder {
  static Unwinder* Of(void* argument) { return static_cast<Unwinder*>(argument); }

  explicit Unwinder(const ProcessCode& owner) : code(owner) {
    callbacks.find_elf = FindElf;
    callbacks.find_debuginfo = FindNoDebugInfo;
    session = dwfl_begin(&callbacks);
    if (session == nullptr || dwfl_linux_proc_report(session, code.process_.pid) != 0 ||
        dwfl_report_end(session, nullptr, nullptr) != 0) {
      InspectProcess(code.process_.pid);  // throws if it has ended
      throw UserError("cannot read the libraries of process " + code.process_.Label(), "try again");
    }
    // Files are opened now, while the process runs.
    dwfl_getmodules(session, Prepare, this, 0);
    threads.next_thread = NextThread;
    threads.get_thread = GetThread;
    threads.memory_read = ReadMemory;
    threads.set_initial_registers = SetRegisters;
    if (!dwfl_attach_state(session, nullptr, code.process_.pid, &threads, this)) {
      throw UserError(std::string("cannot unwind the stacks of process ") + code.process_.Label() +
                          ": " + dwfl_errmsg(-1),
                      "try again");
    }
  }
  ~Unwinder() { dwfl_end(session); }
  Unwinder(const Unwinder&) = delete;
  Unwinder& operator=(const Unwinder&) = delete;

  static int Prepare(Dwfl_Module* module, void** user, const char*, Dwarf_Addr, void* self) {
    *user = self;
    Dwarf_Addr bias = 0;
    dwfl_module_eh_cfi(module, &bias);
    return DWARF_CB_OK;
  }

  // The file that the process has mapped, also if it has another root directory or the file was
  // replaced.
  static int FindElf(Dwfl_Module* module, void** user, const char* name, Dwarf_Addr base,
                     char** file_name, Elf** elf) {
    if (name[0] == '/' && *user != nullptr) {
      for (const Mapping& mapping : Of(*user)->code.mappings_) {
        if (mapping.start != base) continue;
        const std::string path = FileOf(Of(*user)->code.process_, mapping);
        const int file = open(RootedPath(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (file >= 0) *file_name = strdup(path.c_str());
        return file;
      }
    }
    return dwfl_linux_proc_find_elf(module, user, name, base, file_name, elf);
  }

  static int FindNoDebugInfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*,
                             const char*, GElf_Word, char**) {
    return -1;
  }

  static pid_t NextThread(Dwfl*, void*, void**) { return 0; }
  static bool GetThread(Dwfl*, pid_t, void* self, void** thread) {
    *thread = self;
    return true;
  }
  static bool ReadMemory(Dwfl*, Dwarf_Addr address, Dwarf_Word* word, void* self) {
    const auto value = Of(self)->code.memory_.Word(address);
    *word = value.value_or(0);
    return value.has_value();
  }
  static bool SetRegisters(Dwfl_Thread* thread, void* self) {
    const StoppedThread& from = *Of(self)->thread;
#ifdef __aarch64__
    dwfl_thread_state_register_pc(thread, from.ProgramCounter());
    return dwfl_thread_state_registers(thread, 0, 32, from.registers.data());
#else
    const auto count = static_cast<unsigned>(from.registers.size());
    return dwfl_thread_state_registers(thread, 0, count, from.registers.data());
#endif
  }

  static int AddFrame(Dwfl_Frame* frame, void* self) {
    constexpr std::size_t kMaxFrames = 1000;
    Unwinder& unwinder = *Of(self);
    Stack& stack = unwinder.stack;
    Dwarf_Addr pc = 0;
    bool interrupted = false;
    if (!dwfl_frame_pc(frame, &pc, &interrupted)) return DWARF_CB_ABORT;
    stack.in_signal_handler = stack.in_signal_handler || (interrupted && !stack.places.empty()) ||
                              unwinder.code.memory_.Word(pc) == kTrampoline;
    stack.places.push_back(unwinder.code.PlaceOf(interrupted ? pc : pc - 1));
    return stack.places.size() < kMaxFrames ? DWARF_CB_OK : DWARF_CB_ABORT;
  }

  const ProcessCode& code;
  Dwfl_Callbacks callbacks = {};
  Dwfl_Thread_Callbacks threads = {};
  Dwfl* session = nullptr;
  const StoppedThread* thread = nullptr;
  Stack stack;
};

bool Stack::Has(Place place) const {
  return std::find(places.begin(), places.end(), place) != places.end();
}

ProcessCode::ProcessCode(const ProcessInfo& process) : process_(process), memory_(process.pid) {
  const LoadedLibraries loaded = ReadLoadedLibraries(process_, memory_, {});
  mappings_ = loaded.mappings;
  code_ = CodeOf(mappings_);
  for (const LoadedLibrary& library : loaded.libraries) AddLibrary(library, mappings_);
  unwinder_ = std::make_unique<Unwinder>(*this);
}

ProcessCode::~ProcessCode() = default;

void ProcessCode::AddLibrary(const LoadedLibrary& library, const std::vector<Mapping>& mappings) {
  Place place = Place::kProgram;
  std::vector<ElfSymbol> symbols;
  const auto first = std::find_if(mappings.begin(), mappings.end(), [&](const Mapping& mapping) {
    return library.file && mapping.path == library.path && mapping.offset == 0 &&
           mapping.start == library.bias + library.file->first_address;
  });
  if (first == mappings.end()) return;
  symbols = ReadDefinitions(FileOf(process_, *first));
  for (const ElfSymbol& symbol : symbols) {
    // The first library in the order of the search counts.
    if (malloc_ == 0 && symbol.is_function && symbol.name == "malloc") {
      malloc_ = library.bias + symbol.address;
    }
  }
  // glibc before 2.34 has a library of its own for threads.
  if (Defines(symbols, "gnu_get_libc_version") ||
      LastPart(library.path).starts_with("libpthread")) {
    place = Place::kCLibrary;
    AddCLibrary(library, symbols);
  } else if (Defines(symbols, "__tls_get_addr")) {
    place = Place::kLinker;
  } else if (Defines(symbols, "malloc")) {
    place = Place::kAllocator;
    if (library.is_program) {
      throw UserError("the allocator is linked statically into the program: " +
                          process_.Shown(library.path) + " defines malloc",
                      "start the program with: memleak run -- PROGRAM");
    }
  } else if (!library.is_program && Defines(symbols, "dlopen")) {
    // libdl of older versions of the C library.
    for (const ElfSymbol& symbol : symbols)
      addresses_.emplace(symbol.name, library.bias + symbol.address);
    place = Place::kLinker;
  }
  for (auto mapping = first; mapping != mappings.end() && mapping->path == library.path;
       ++mapping) {
    libraries_[mapping->start] = {mapping->end, place};
  }
}

void ProcessCode::AddCLibrary(const LoadedLibrary& library, const std::vector<ElfSymbol>& symbols) {
  std::map<std::uint64_t, const ElfSymbol*> sorted;
  std::set<std::uint64_t> allocator;
  for (const ElfSymbol& symbol : symbols) {
    if (!symbol.is_function) continue;
    addresses_[symbol.name] = library.bias + symbol.address;
    sorted[symbol.address] = &symbol;
    if (kAllocator.contains(symbol.name)) allocator.insert(symbol.address);
    const Place place = kLinker.contains(symbol.name) ? Place::kLinker
                        : kFork.contains(symbol.name) ? Place::kFork
                                                      : Place::kCLibrary;
    if (place == Place::kCLibrary) continue;
    functions_[library.bias + symbol.address] = {library.bias + symbol.address + symbol.bytes,
                                                 place};
  }
  if (allocator.empty()) return;
  // From the end of the function before to the start of the function after.
  const auto first = sorted.find(*allocator.begin());
  const auto after = sorted.upper_bound(*allocator.rbegin());
  const std::uint64_t start = first == sorted.begin()
                                  ? first->first
                                  : std::prev(first)->first + std::prev(first)->second->bytes;
  const std::uint64_t end = after == sorted.end() ? *allocator.rbegin() + 4096 : after->first;
  functions_[library.bias + start] = {library.bias + end, Place::kAllocator};
}

bool ProcessCode::IsOutdated() {
  latest_mappings_ = ParseMaps(ReadMaps(process_.pid));
  return CodeOf(latest_mappings_) != code_;
}

std::uint64_t ProcessCode::Function(const std::string& name) const {
  const auto found = addresses_.find(name);
  return found == addresses_.end() ? 0 : found->second;
}

Place ProcessCode::PlaceOf(std::uint64_t address) const {
  if (const Range* function = Find(functions_, address)) return function->place;
  const Range* library = Find(libraries_, address);
  return library == nullptr ? Place::kProgram : library->place;
}

Stack ProcessCode::StackOf(const StoppedThread& thread) const {
  unwinder_->thread = &thread;
  unwinder_->stack = {};
  dwfl_getthread_frames(unwinder_->session, process_.pid, Unwinder::AddFrame, unwinder_.get());
  return std::move(unwinder_->stack);
}

const char* ProcessCode::WhyNot(const StoppedThread& thread, const Stack& stack) const {
  if (stack.Has(Place::kLinker)) return "in the dynamic linker";
  // A thread at the start of malloc does not use the allocator yet.
  const bool at_malloc = thread.ProgramCounter() == malloc_;
  const auto frames_in_allocator =
      std::count(stack.places.begin(), stack.places.end(), Place::kAllocator);
  if (frames_in_allocator > (at_malloc ? 1 : 0)) return "in the allocator";
  if (stack.in_signal_handler) return "in a signal handler";
  if (stack.Has(Place::kFork)) return "in fork, exit, setuid or the start of a thread";
  // pthread_join unmaps stacks under their lock, in an internal function, which has no symbol.
  const bool inside = stack.places.size() > 1 && stack.places[1] == Place::kCLibrary;
  if (thread.system_call == SYS_munmap && inside) return "freeing memory in the C library";
  // A thread that is only in the C library starts, ends or belongs to it.
  if (!stack.Has(Place::kProgram)) return "in the C library";
  if (thread.system_call < 0 && !at_malloc) return "computing";
  // A system call of the program itself keeps vector registers, which a call overwrites. One in a
  // function of the C library does not: no caller expects them to survive.
  if (!at_malloc && stack.places.front() == Place::kProgram) return "in its own system call";
  const std::uint64_t stack_pointer = thread.StackPointer();
  if (stack_pointer >= kGoHeap && stack_pointer < kGoHeapEnd) return "on the stack of a goroutine";
  const auto mapping =
      std::find_if(latest_mappings_.begin(), latest_mappings_.end(), [&](const Mapping& candidate) {
        return stack_pointer >= candidate.start && stack_pointer < candidate.end;
      });
  if (mapping == latest_mappings_.end()) return "on an unknown stack";
  // A block of the allocator may end just below.
  if (mapping->path == "[heap]") return "on a stack in the heap";
  if (mapping->path != "[stack]" && stack_pointer - mapping->start < kStackRoom) {
    return "on a small stack";
  }
  return nullptr;
}

}  // namespace memleak
