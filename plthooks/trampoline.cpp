// Trampolines and the hook stack. See the header for who runs what where.
//
// A thread's hook stack lies in pages of its own and not in the program's heap: the hooked function
// may be the allocator's own way to memory, and the thread may be anywhere inside it.
#include "plthooks/trampoline.h"

#include <android-base/logging.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <list>

#include "linker/log_assert.h"
#include "linker/rwlock.h"
#include "platform/thread_keys.h"
#include "plthooks/hooks.h"

// From <linux/prctl.h>, for headers that are older than the call.
#ifndef PR_SET_VMA
#define PR_SET_VMA 0x53564d41
#define PR_SET_VMA_ANON_NAME 0
#endif

namespace lumora::plthooks {

namespace {

using linker::WriteLock;

// ---- hook stack ----

/// One active hooked call.
struct Frame {
  std::uint64_t id;
  void* return_address;
  void* stack_address;
  Frame* previous;
  /// The slot's functions when the call began: hooks that come and go meanwhile are not its.
  const hooks::RunList* run_list;
};

constexpr std::size_t kStackBlockBytes = 4096;

/// A page of frames. The first one of a thread is the value of the thread's key.
struct StackBlock {
  StackBlock* next;
  /// In the first block alone: the newest frame, or null.
  Frame* top;
  Frame frames[(kStackBlockBytes - 2 * sizeof(void*)) / sizeof(Frame)];
};
static_assert(sizeof(StackBlock) <= kStackBlockBytes);

StackBlock* new_stack_block() {
  const int saved_errno = errno;
  void* memory =
      mmap(nullptr, kStackBlockBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  // Without a note of where to return to the call cannot be made, nor be left out.
  if (memory == MAP_FAILED) {
    linker::log_assert("no memory for the hook stack: %s", std::strerror(errno));
  }
  errno = saved_errno;
  return static_cast<StackBlock*>(memory);
}

/// The key's destructor.
void free_stack(void* first) {
  for (auto* block = static_cast<StackBlock*>(first); block != nullptr;) {
    StackBlock* next = block->next;
    munmap(block, kStackBlockBytes);
    block = next;
  }
}

pthread_key_t create_key() {
  pthread_key_t key = 0;
  if (pthread_key_create(&key, free_stack) != 0) {
    linker::log_assert("failed to create trampoline TLS key");
  }
  return key;
}

pthread_key_t stack_key() {
  static const pthread_key_t key = create_key();
  return key;
}

StackBlock* own_stack() {
  return static_cast<StackBlock*>(pthread_getspecific(stack_key()));
}

Frame* top_frame() {
  const StackBlock* stack = own_stack();
  return stack != nullptr ? stack->top : nullptr;
}

/// Where the frame above `top` goes. Blocks begin at multiples of their size.
Frame* frame_above(Frame* top) {
  const auto address = reinterpret_cast<std::uintptr_t>(top);
  auto* block = reinterpret_cast<StackBlock*>(address & ~(kStackBlockBytes - 1));
  if (top + 1 != std::end(block->frames)) return top + 1;
  if (block->next == nullptr) block->next = new_stack_block();
  return block->next->frames;
}

/// Makes a frame the thread's newest one. A signal handler may itself make a hooked call at any
/// point: it must find this frame either not there yet or no longer free.
Frame* claim_frame() {
  StackBlock* stack = own_stack();
  if (stack == nullptr) {
    stack = new_stack_block();
    const int code = pthread_setspecific(stack_key(), stack);
    if (code != 0) linker::log_assert("no memory for the hook stack: %s", std::strerror(code));
  }
  Frame* previous = stack->top;
  Frame* frame = previous == nullptr ? stack->frames : frame_above(previous);
  frame->previous = previous;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  stack->top = frame;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return frame;
}

// ---- memory of the trampolines ----

struct allocator_block {
  unsigned char* base;
  unsigned char* cursor;
};

pthread_rwlock_t block_lock = PTHREAD_RWLOCK_INITIALIZER;
pthread_rwlock_t trampoline_lock = PTHREAD_RWLOCK_INITIALIZER;

/// Newest first.
std::list<allocator_block>& blocks() {
  static auto* list = new std::list<allocator_block>;
  return *list;
}

/// All that were ever made.
std::list<trampoline::trampoline>& trampolines() {
  static auto* list = new std::list<trampoline::trampoline>;
  return *list;
}

bool add_block() {
  using trampoline::kBlockBytes;
  void* memory = mmap(nullptr, kBlockBytes, PROT_READ | PROT_WRITE | PROT_EXEC,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    LOG(ERROR) << "allocator_block mmap fail";
    return false;
  }
  // For people who read the process's maps. Kernels without the feature refuse, which is no loss.
  const int saved_errno = errno;
  prctl(PR_SET_VMA, PR_SET_VMA_ANON_NAME, memory, kBlockBytes, "plthooks plt trampolines");
  errno = saved_errno;
  auto* base = static_cast<unsigned char*>(memory);
  blocks().push_front({base, base});
  return true;
}

/// Room for one trampoline, or null. What is handed out is never taken back.
unsigned char* take_room() {
  using trampoline::kBlockBytes;
  using trampoline::kTrampolineBytes;
  const WriteLock lock(&block_lock);
  const auto used = [](const allocator_block& block) {
    return static_cast<std::size_t>(block.cursor - block.base);
  };
  if (blocks().empty() || kBlockBytes - used(blocks().front()) < kTrampolineBytes) {
    if (!add_block()) return nullptr;
  }
  unsigned char* room = blocks().front().cursor;
  blocks().front().cursor += kTrampolineBytes;
  return room;
}

}  // namespace

namespace trampoline {

trampoline::trampoline(std::uint64_t id)
    : code_size(arch::kTrampolineCodeBytes), code(take_room()) {
  if (code == nullptr) return;
  auto* copy = static_cast<unsigned char*>(code);
  const std::uint64_t data[] = {reinterpret_cast<std::uint64_t>(push_hook_stack),
                                reinterpret_cast<std::uint64_t>(pop_hook_stack), id};
  static_assert(sizeof data == kDataBytes);
  std::memcpy(copy, arch_trampoline_code, arch::kTrampolineCodeBytes);
  std::memcpy(copy + arch::kTrampolineCodeBytes, data, sizeof data);
  __builtin___clear_cache(reinterpret_cast<char*>(copy),
                          reinterpret_cast<char*>(copy) + kTrampolineBytes);
}

void* push_hook_stack(std::uint64_t id, void* return_address, void* stack_address) {
  const hooks::RunList* run_list = hooks::current_run_list(id);
  if (run_list == nullptr || run_list->empty()) {
    LOG(FATAL) << "Run list for trampoline is empty";
    abort();
  }
  Frame* frame = claim_frame();
  frame->id = id;
  frame->return_address = return_address;
  frame->stack_address = stack_address;
  frame->run_list = run_list;
  return run_list->back();
}

void* pop_hook_stack() {
  StackBlock* stack = own_stack();
  const Frame* frame = stack->top;
  void* return_address = frame->return_address;
  // From here on a signal handler's hooked call may take the frame.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  stack->top = frame->previous;
  return return_address;
}

}  // namespace trampoline

void prepare_hook_stack() {
  stack_key();
}

void* create_trampoline(std::uint64_t id) {
  if (!platform::ThreadKeyNeverAllocates(stack_key())) {
    // A hooked call may be the allocator's own.
    LOG(ERROR) << "too many thread keys are in use to hook a function";
    return nullptr;
  }
  const WriteLock lock(&trampoline_lock);
  return trampolines().emplace_back(id).code;
}

void* get_previous_from_hook(void* hook) {
  const Frame* frame = top_frame();
  if (frame == nullptr) {
    LOG(FATAL) << "CALL_PREV call outside of an active hook";
    abort();
  }
  const hooks::RunList& list = *frame->run_list;
  const auto found = std::find(list.begin(), list.end(), hook);
  if (list.empty() || found == list.begin()) {
    LOG(FATAL) << "CALL_PREV call by original function?!";
    abort();
  }
  if (found == list.end()) {
    LOG(FATAL) << "CALL_PREV call by an unknown hook? How did we get here?";
    abort();
  }
  return *(found - 1);
}

int get_stack_address_for_previous(std::uintptr_t* return_address, std::uintptr_t* stack_address) {
  if (return_address == nullptr || stack_address == nullptr) return 0;
  const Frame* frame = top_frame();
  if (frame == nullptr) {
    LOG(ERROR) << "outside of an active hook";
    return 0;
  }
  *return_address = reinterpret_cast<std::uintptr_t>(frame->return_address);
  *stack_address = reinterpret_cast<std::uintptr_t>(frame->stack_address);
  return 1;
}

}  // namespace lumora::plthooks
