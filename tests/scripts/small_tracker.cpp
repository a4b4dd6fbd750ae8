// A library that passes scripts/check-library, and one for each fault that it is to find: compiled
// by check_library_test.py, with FAULT_... defined. Its entries do nothing; the chain of the
// capture and the exports are as in the real one.
#include <cstddef>
#include <cstdint>
#include <vector>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace unwindstack {
struct FrameData {
  int number;
};
}  // namespace unwindstack

class PointerSet;
class PointerData {
 public:
  void Add(const void* pointer, std::size_t size);
  void AddBacktrace(std::size_t frames, PointerSet* set, unsigned long pointer, std::size_t size);
};

volatile int g_work = 0;

__attribute__((noinline)) void Work() {
  g_work = g_work + 1;
}

__attribute__((noinline)) std::size_t BacktraceGet(std::uint64_t* frames, std::size_t /*count*/,
                                                   std::vector<unwindstack::FrameData>& /*data*/) {
  frames[0] = 1;
  Work();
  return static_cast<std::size_t>(g_work);
}

__attribute__((noinline)) void PointerData::AddBacktrace(std::size_t count, PointerSet* /*set*/,
                                                         unsigned long pointer, std::size_t size) {
  std::uint64_t frames[4] = {pointer, size};
  std::vector<unwindstack::FrameData>* none = nullptr;
  g_work = static_cast<int>(BacktraceGet(frames, count, *none));
}

#ifdef FAULT_JUMP
__attribute__((noinline, optimize("optimize-sibling-calls")))
#else
__attribute__((noinline))
#endif
void PointerData::Add(const void* pointer, std::size_t size) {
  AddBacktrace(1, nullptr, reinterpret_cast<unsigned long>(pointer), size);
}

#ifdef FAULT_BETWEEN
__attribute__((noinline)) void Between(void* pointer, std::size_t size) {
  static_cast<PointerData*>(pointer)->Add(pointer, size);
  Work();
}
#else
__attribute__((always_inline)) inline void Between(void* pointer, std::size_t size) {
  static_cast<PointerData*>(pointer)->Add(pointer, size);
}
#endif

#ifdef FAULT_NO_RECORD
// Saves the return address alone.
#define NO_RECORD __attribute__((optimize("omit-frame-pointer")))
#else
#define NO_RECORD
#endif
EXPORT NO_RECORD void* track_malloc(std::size_t size) {
  void* pointer = reinterpret_cast<void*>(size);
  static_cast<PointerData*>(pointer)->Add(pointer, size);
  Work();
  return pointer;
}

// An entry that jumps to its body, on the path that records alone.
__attribute__((noinline)) void* Body(void* pointer, std::size_t size) {
  Between(pointer, size);
  Work();
  return pointer;
}
EXPORT __attribute__((optimize("optimize-sibling-calls"))) void* track_calloc(std::size_t count,
                                                                              std::size_t size) {
  if (count == 0) return nullptr;
  return Body(reinterpret_cast<void*>(count), size);
}

#ifdef ERRATUM
// An adrp in the last words of a page of 4 KiB, and soon after a load by its result.
#define THUNK()                                                              \
  asm volatile(                                                              \
      "b 1f; .balign 4096; .skip 4088; 1: adrp x16, g_work; ldr x17, [sp]; " \
      "ldr w17, [x16, :lo12:g_work]" ::                                      \
          : "x16", "x17")
#else
#define THUNK()
#endif
#define ENTRY(name)                                         \
  EXPORT void name(void* pointer, std::size_t size) {       \
    THUNK();                                                \
    static_cast<PointerData*>(pointer)->Add(pointer, size); \
    Work();                                                 \
  }
ENTRY(track_realloc)
ENTRY(track_memalign)
ENTRY(track_aligned_alloc)
ENTRY(track_posix_memalign)
#ifdef FAULT_EXPORT
ENTRY(extra)
#endif

#ifdef FAULT_TLS
thread_local int t_variable = 0;
int* UseThreadLocal() {
  return &t_variable;
}
#endif
#ifdef FAULT_EMULATED_TLS
// What a compiler makes of one where the platform has no thread-local variables.
extern "C" void* __emutls_get_address(void* variable);
int* UseThreadLocal() {
  return static_cast<int*>(__emutls_get_address(nullptr));
}
#endif
#ifdef FAULT_CONSTRUCTOR
__attribute__((constructor)) void Unlisted() {
  Work();
}
#endif
#ifdef MANY_POINTERS
// More than two words of a bitmap, in front of the global offset table.
asm(".section .data.rel.ro, \"aw\"\n.rept 130\n.quad _Z4Workv\n.endr\n.text\n");
#endif
#ifdef FAULT_TEXTREL
asm(".text\n.balign 8\n.quad g_work\n");
#endif
