#include "fakes.h"

#include <sys/system_properties.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "linker/sharedlibs.h"
#include "platform/program_name.h"
#include "plthooks/plthooks.h"
#include "plthooks/trampoline.h"
#include "records/PointerData.h"
#include "tracker/control/MemTrackControl.h"
#include "tracker/proxies.h"

namespace fake {
namespace {

using mallinfo_type = struct mallinfo;

std::mutex mutex;
// Never destroyed: a report's thread may outlive main.
auto& events = *new std::string;
auto& log_lines = *new std::vector<std::string>;
std::function<void()> report_action;

std::string Name(const void* pointer) {
  if (pointer == nullptr) return "null";
  if (pointer == new_block) return "new";
  return pointer == old_block ? "old" : "?";
}

std::string Name(std::size_t number) {
  return std::to_string(number);
}

void Append(const std::string& text) {
  const std::lock_guard lock(mutex);
  if (!events.empty()) events += ' ';
  events += text;
}

template <typename... Arguments>
void Note(const char* name, Arguments... arguments) {
  std::string text;
  ((text += (text.empty() ? "" : ",") + Name(arguments)), ...);
  const MemTrackControl* control = MemTrackControl::GetInstance();
  const bool marked = control != nullptr && !control->ThreadEnabled();
  Append(name + ("(" + text + ")") + (marked ? "*" : ""));
}

template <typename... Arguments>
void* Allocate(const char* name, Arguments... arguments) {
  Note(name, arguments...);
  return new_block;
}

const char* ProxyName(const void* proxy) {
  if (proxy == FindProxy("ioctl_libdmabufheap.so")) return "ion";
  if (proxy == FindProxy("ioctl_libgsl.so")) return "gpu";
  for (const char* name : {"mmap64", "__mmap2", "mremap", "munmap"}) {
    if (proxy == FindProxy(name)) return name;
  }
  return "?";
}

int Answer(const char* verb, const char* library, const char* name, const void* proxy) {
  Append(std::string(verb) + "(" + library + "," + name + "," + ProxyName(proxy) + ")");
  if (Hooks().refused.count(name) == 0) return 0;
  errno = ENOENT;
  return 1;
}

}  // namespace

char new_block[64];
char old_block[64];
std::uint32_t zygote_flag = 0;
bool* ZygoteFlag() {
  return reinterpret_cast<bool*>(&zygote_flag);
}

HookSetup& Hooks() {
  static HookSetup setup;
  return setup;
}

Behaviour& Now() {
  static Behaviour behaviour;
  return behaviour;
}

void Reset() {
  Now() = Behaviour{};
  OnReport(nullptr);
  TakeEvents();
  TakeLog();
}

void OnReport(std::function<void()> action) {
  const std::lock_guard lock(mutex);
  report_action = std::move(action);
}

std::string TakeEvents() {
  const std::lock_guard lock(mutex);
  return std::exchange(events, {});
}

std::vector<std::string> TakeLog() {
  const std::lock_guard lock(mutex);
  return std::exchange(log_lines, {});
}

const MallocDispatch& Dispatch() {
  static const MallocDispatch table = {
      [](size_t count, size_t size) { return Allocate("calloc", count, size); },
      [](void* pointer) { Note("free", pointer); },
      [] { return Note("mallinfo"), mallinfo_type{}; },
      [](size_t size) { return Allocate("malloc", size); },
      [](const void* pointer) { return Note("usable", pointer), size_t{48}; },
      [](size_t alignment, size_t size) { return Allocate("memalign", alignment, size); },
      [](void** result, size_t alignment, size_t size) {
        *result = Allocate("posix_memalign", alignment, size);
        return 5;
      },
      [](void* pointer, size_t size) { return Allocate("realloc", pointer, size); },
      [](uintptr_t, size_t, void (*)(uintptr_t, size_t, void*), void*) { return 6; },
      [] { Note("disable"); },
      [] { Note("enable"); },
      [](int parameter, int value) { return parameter + value; },
      [](size_t alignment, size_t size) { return Allocate("aligned_alloc", alignment, size); },
      [](int options, FILE*) { return 100 + options; },
  };
  return table;
}

}  // namespace fake

bool PointerData::Initialize() {
  fake::Note("Initialize");
  return true;
}
void PointerData::Add(const void* pointer, std::size_t size) {
  fake::Note("Add", pointer, size);
  if (fake::Now().in_add) fake::Now().in_add();
}
void PointerData::Remove(const void* pointer, std::size_t size) {
  fake::Note("Remove", pointer, size);
}
void PointerData::AddMapping(const void* pointer, std::size_t size) {
  Add(pointer, size);
}
void PointerData::RemoveMapping(const void* pointer, std::size_t size) {
  Remove(pointer, size);
}
std::size_t PointerData::GetFrames(const void* pointer, std::uintptr_t*, std::size_t max_frames) {
  fake::Note("GetFrames", pointer, max_frames);
  return 3;
}
void PointerData::PrepareFork() {
  fake::Note("PrepareFork");
}
void PointerData::PostForkParent() {
  fake::Note("PostForkParent");
}
void PointerData::PostForkChild() {
  fake::Note("PostForkChild");
}
std::uint32_t PointerData::GetMaxBacktraceNum() {
  return fake::Now().backtrace_size;
}
void PointerData::GetInfo(std::uint8_t**, std::size_t* overall_size, std::size_t*, std::size_t*,
                          std::size_t*, std::vector<RecordStruct>* list) {
  fake::Note("GetInfo", *overall_size, static_cast<const void*>(list));
  *overall_size = 99;
}
void PointerData::DumpAllocationTracesToFile() {
  fake::Note("Report");
  std::function<void()> action;
  {
    const std::lock_guard lock(fake::mutex);
    action = fake::report_action;
  }
  if (action) action();
}

void BacktraceStartup() {
  fake::Note("BacktraceStartup");
}
char GetBacktraceTypeFromProp() {
  return fake::Now().backtrace_type;
}

const char* platform::ProgramName() {
  return "program";
}

int async_safe_format_log(int priority, const char* tag, const char* format, ...) {
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const std::lock_guard lock(fake::mutex);
  const bool known = std::strcmp(tag, "MemLeak.Native") == 0;
  fake::log_lines.push_back(std::string(!known ? "? " : priority == 4 ? "I " : "E ") + text);
  return length;
}

void lumora::linker::linker_set_enabled(int enabled) {
  fake::Append("enable(" + std::to_string(enabled) + ")");
}

namespace lumora::plthooks {

int plthooks_initialize() {
  if (!fake::Hooks().initialize_fails) return 0;
  errno = EPERM;
  return 1;
}
int hook_plt_method(const char* libname, const char* name, void* hook) {
  return fake::Answer("hook", libname, name, hook);
}
int unhook_plt_method(const char* libname, const char* name, void* hook) {
  return fake::Answer("unhook", libname, name, hook);
}
void prepare_hook_stack() {}
void* get_previous_from_hook(void* /*hook*/) {
  return fake::Hooks().previous;
}

}  // namespace lumora::plthooks

int __system_property_get(const char* name, char* value) {
  const bool libraries = std::strcmp(name, "persist.sys.memleak.hookLib") == 0;
  const std::string& text = libraries ? fake::Hooks().libraries : fake::Hooks().functions;
  value[text.copy(value, PROP_VALUE_MAX - 1)] = '\0';
  return static_cast<int>(text.size());
}
