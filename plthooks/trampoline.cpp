// SPDX-License-Identifier: Apache-2.0
// Trampolines and the hook stack.
//
// A hook stack is in its own mapped pages, not on the heap: the allocator itself may make hooked
// calls, at any point.
#include "plthooks/trampoline.h"

#include <android-base/logging.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "linker/log_assert.h"
#include "linker/rwlock.h"
#include "platform/policies.h"
#include "plthooks/hooks.h"
#include "protocol/protocol.h"

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
  /// The slot's functions when the call began.
  HookChain::Snapshot run_list;
};

constexpr std::size_t kStackBlockBytes = 4096;

/// A page of frames. A thread's first block is the value of its key.
struct StackBlock {
  StackBlock* next;
  /// The newest frame, or null. Used in the first block only.
  Frame* top;
  Frame frames[(kStackBlockBytes - 2 * sizeof(void*)) / sizeof(Frame)];
};
static_assert(sizeof(StackBlock) <= kStackBlockBytes);

/// Returns null if there is no memory. Keeps errno. Not inlined: rarely called.
[[gnu::noinline]] StackBlock* new_stack_block() {
  const int saved_errno = errno;
  void* memory =
      mmap(nullptr, kStackBlockBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  errno = saved_errno;
  return memory != MAP_FAILED ? static_cast<StackBlock*>(memory) : nullptr;
}

/// Destructor of the thread key.
void free_stack(void* first) {
  for (auto* block = static_cast<StackBlock*>(first); block != nullptr;) {
    StackBlock* next = block->next;
    munmap(block, kStackBlockBytes);
    block = next;
  }
}

pthread_rwlock_t key_lock = PTHREAD_RWLOCK_INITIALIZER;
pthread_key_t hook_stack_key = 0;
std::atomic<bool> has_key{false};

/// Creates the key of the hook stacks if there is none yet. Returns false if no key is left.
[[gnu::noinline]] bool make_key() {
  const WriteLock lock(&key_lock);
  if (has_key.load(std::memory_order_relaxed)) return true;
  if (pthread_key_create(&hook_stack_key, free_stack) != 0) return false;
  has_key.store(true, std::memory_order_release);
  return true;
}

pthread_key_t stack_key() {
  if (!has_key.load(std::memory_order_acquire) && !make_key()) {
    linker::log_assert("failed to create trampoline TLS key");
  }
  return hook_stack_key;
}

StackBlock* current_stack() {
  return static_cast<StackBlock*>(pthread_getspecific(stack_key()));
}

Frame* top_frame() {
  const StackBlock* stack = current_stack();
  return stack != nullptr ? stack->top : nullptr;
}

/// Creates the calling thread's stack. Returns null if there is no memory. Not inlined: rarely
/// called.
[[gnu::noinline]] StackBlock* make_current_stack() {
  StackBlock* stack = new_stack_block();
  if (stack != nullptr && pthread_setspecific(stack_key(), stack) != 0) {
    munmap(stack, kStackBlockBytes);
    return nullptr;
  }
  return stack;
}

/// Returns the place for the frame after `top`; null if there is no memory. Blocks are aligned to
/// their size.
Frame* frame_above(Frame* top) {
  const auto address = reinterpret_cast<std::uintptr_t>(top);
  auto* block = reinterpret_cast<StackBlock*>(address & ~(kStackBlockBytes - 1));
  if (top + 1 != std::end(block->frames)) return top + 1;
  if (block->next == nullptr) block->next = new_stack_block();
  return block->next != nullptr ? block->next->frames : nullptr;
}

/// Pushes a frame on the thread's stack. Returns null if there is no memory. A signal handler may
/// make a hooked call at any point, so a frame must become the newest before it is filled.
Frame* push_frame() {
  StackBlock* stack = current_stack();
  if (stack == nullptr) stack = make_current_stack();
  if (stack == nullptr) return nullptr;
  Frame* previous = stack->top;
  Frame* frame = previous == nullptr ? stack->frames : frame_above(previous);
  if (frame == nullptr) return nullptr;
  frame->previous = previous;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  stack->top = frame;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return frame;
}

/// Logs `text` and ends the process. Not inlined: logging needs stack space that other hooked calls
/// must not pay for.
[[noreturn, gnu::noinline]] void die(const char* text) {
  LOG(FATAL) << text;
  abort();
}

[[gnu::noinline]] void log_outside_of_hook() {
  LOG(ERROR) << "outside of an active hook";
}

// ---- memory of the trampolines ----

/// The block that new trampolines are cut from. Full blocks stay mapped, since their trampolines
/// are never freed; no list of them is needed.
struct allocator_block {
  unsigned char* cursor;
  unsigned char* end;
};

allocator_block front_block = {nullptr, nullptr};
pthread_rwlock_t block_lock = PTHREAD_RWLOCK_INITIALIZER;

bool add_block() {
  using trampoline::kBlockBytes;
  void* memory = mmap(nullptr, kBlockBytes, PROT_READ | PROT_WRITE | PROT_EXEC,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    LOG(ERROR) << "allocator_block mmap fail";
    return false;
  }
  // The name shows in /proc/PID/maps. Older kernels reject it, which does no harm.
  const int saved_errno = errno;
  prctl(PR_SET_VMA, PR_SET_VMA_ANON_NAME, memory, kBlockBytes, protocol::kTrampolineName);
  errno = saved_errno;
  auto* base = static_cast<unsigned char*>(memory);
  front_block = {base, base + kBlockBytes};
  return true;
}

/// Returns memory for one trampoline, or null. It is never freed.
unsigned char* allocate_code() {
  using trampoline::kTrampolineBytes;
  const WriteLock lock(&block_lock);
  const auto left = static_cast<std::size_t>(front_block.end - front_block.cursor);
  if (left < kTrampolineBytes && !add_block()) return nullptr;
  unsigned char* code = front_block.cursor;
  front_block.cursor += kTrampolineBytes;
  return code;
}

}  // namespace

namespace trampoline {

trampoline::trampoline(std::uint64_t id)
    : code_size(arch::kTrampolineCodeBytes), code(allocate_code()) {
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

void* pop_hook_stack() {
  StackBlock* stack = current_stack();
  const Frame* frame = stack->top;
  void* return_address = frame->return_address;
  // A hooked call in a signal handler may reuse the frame from here on.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  stack->top = frame->previous;
  return return_address;
}

}  // namespace trampoline

void prepare_hook_stack() {
  make_key();
}

bool can_create_trampolines() {
  if (make_key() && platform::ThreadKeyNeverAllocates(hook_stack_key)) return true;
  LOG(ERROR) << "too many thread keys are in use to hook a function";
  return false;
}

void* create_trampoline(std::uint64_t id) {
  return trampoline::trampoline(id).code;
}

void* get_previous_from_hook(void* hook) {
  const Frame* frame = top_frame();
  if (frame == nullptr) die("CALL_PREV call outside of an active hook");
  if (hook == frame->run_list.original()) die("CALL_PREV call by original function?!");
  void* previous = frame->run_list.before(hook);
  if (previous == nullptr) die("CALL_PREV call by an unknown hook? How did we get here?");
  return previous;
}

int get_stack_address_for_previous(std::uintptr_t* return_address, std::uintptr_t* stack_address) {
  if (return_address == nullptr || stack_address == nullptr) return 0;
  const Frame* frame = top_frame();
  if (frame == nullptr) {
    log_outside_of_hook();
    return 0;
  }
  *return_address = reinterpret_cast<std::uintptr_t>(frame->return_address);
  *stack_address = reinterpret_cast<std::uintptr_t>(frame->stack_address);
  return 1;
}

/// Result of plthooks_begin_call, in two registers.
struct CallStart {
  /// The function to run.
  void* function;
  /// 0 if the call is not on the hook stack. Then `function` is the original function.
  std::uint64_t is_pushed;
};

/// Begins a hooked call. Called by arch_push_hook_stack.
extern "C" CallStart plthooks_begin_call(std::uint64_t id, void* return_address,
                                         void* stack_address) {
  const HookChain::Snapshot run_list = hooks::current_run_list(id);
  if (run_list.empty()) die("Run list for trampoline is empty");
  Frame* frame = push_frame();
  if (frame == nullptr) return {run_list.original(), 0};
  frame->id = id;
  frame->return_address = return_address;
  frame->stack_address = stack_address;
  frame->run_list = run_list;
  return {run_list.newest(), 1};
}

}  // namespace lumora::plthooks
