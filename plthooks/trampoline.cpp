// Trampolines and the hook stack. See the header for who runs what where.
//
// A thread's hook stack lies in pages of its own and not in the program's heap: the hooked function
// may be the allocator's own way to memory, and the thread may be anywhere inside it.
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
#include "platform/thread_keys.h"
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

/// A page of frames. The first one of a thread is the value of the thread's key.
struct StackBlock {
  StackBlock* next;
  /// In the first block alone: the newest frame, or null.
  Frame* top;
  Frame frames[(kStackBlockBytes - 2 * sizeof(void*)) / sizeof(Frame)];
};
static_assert(sizeof(StackBlock) <= kStackBlockBytes);

/// Null when there is no memory. Keeps errno. Not inlined, since hardly any call needs it.
[[gnu::noinline]] StackBlock* new_stack_block() {
  const int saved_errno = errno;
  void* memory =
      mmap(nullptr, kStackBlockBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  errno = saved_errno;
  return memory != MAP_FAILED ? static_cast<StackBlock*>(memory) : nullptr;
}

/// The key's destructor.
void free_stack(void* first) {
  for (auto* block = static_cast<StackBlock*>(first); block != nullptr;) {
    StackBlock* next = block->next;
    munmap(block, kStackBlockBytes);
    block = next;
  }
}

pthread_rwlock_t key_lock = PTHREAD_RWLOCK_INITIALIZER;
pthread_key_t made_key = 0;
std::atomic<bool> has_key{false};

/// Makes the key of the hook stacks unless there is one. False when no key is left.
[[gnu::noinline]] bool make_key() {
  const WriteLock lock(&key_lock);
  if (has_key.load(std::memory_order_relaxed)) return true;
  if (pthread_key_create(&made_key, free_stack) != 0) return false;
  has_key.store(true, std::memory_order_release);
  return true;
}

pthread_key_t stack_key() {
  if (!has_key.load(std::memory_order_acquire) && !make_key()) {
    linker::log_assert("failed to create trampoline TLS key");
  }
  return made_key;
}

StackBlock* own_stack() {
  return static_cast<StackBlock*>(pthread_getspecific(stack_key()));
}

Frame* top_frame() {
  const StackBlock* stack = own_stack();
  return stack != nullptr ? stack->top : nullptr;
}

/// Makes the calling thread's stack; null when there is no memory. Not inlined: few calls need
/// it.
[[gnu::noinline]] StackBlock* make_own_stack() {
  StackBlock* stack = new_stack_block();
  if (stack != nullptr && pthread_setspecific(stack_key(), stack) != 0) {
    munmap(stack, kStackBlockBytes);
    return nullptr;
  }
  return stack;
}

/// Where the frame above `top` goes; null when there is no memory. Blocks begin at multiples of
/// their size.
Frame* frame_above(Frame* top) {
  const auto address = reinterpret_cast<std::uintptr_t>(top);
  auto* block = reinterpret_cast<StackBlock*>(address & ~(kStackBlockBytes - 1));
  if (top + 1 != std::end(block->frames)) return top + 1;
  if (block->next == nullptr) block->next = new_stack_block();
  return block->next != nullptr ? block->next->frames : nullptr;
}

/// Makes a frame the thread's newest one; null when there is no memory. A signal handler may itself
/// make a hooked call at any point: it must find this frame either not there yet or no longer free.
Frame* claim_frame() {
  StackBlock* stack = own_stack();
  if (stack == nullptr) stack = make_own_stack();
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

/// Ends the process. Not inlined: the line's room on the stack is not for every hooked call.
[[noreturn, gnu::noinline]] void die(const char* text) {
  LOG(FATAL) << text;
  abort();
}

[[gnu::noinline]] void log_outside_of_hook() {
  LOG(ERROR) << "outside of an active hook";
}

// ---- memory of the trampolines ----

/// Where trampolines come from. Full blocks are kept, as the trampolines in them are, but nothing
/// asks for them again: there is no list.
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
  // For people who read the process's maps. Older kernels refuse the name; the block works without.
  const int saved_errno = errno;
  prctl(PR_SET_VMA, PR_SET_VMA_ANON_NAME, memory, kBlockBytes, protocol::kTrampolineName);
  errno = saved_errno;
  auto* base = static_cast<unsigned char*>(memory);
  front_block = {base, base + kBlockBytes};
  return true;
}

/// Room for one trampoline, or null. What is handed out is never taken back.
unsigned char* take_room() {
  using trampoline::kTrampolineBytes;
  const WriteLock lock(&block_lock);
  const auto left = static_cast<std::size_t>(front_block.end - front_block.cursor);
  if (left < kTrampolineBytes && !add_block()) return nullptr;
  unsigned char* room = front_block.cursor;
  front_block.cursor += kTrampolineBytes;
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
  make_key();
}

bool can_create_trampolines() {
  if (make_key() && platform::ThreadKeyNeverAllocates(made_key)) return true;
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

/// What a call goes on with, in two registers.
struct CallStart {
  void* function;
  /// 0 when there is no note of the call, so that `function` is the original.
  std::uint64_t is_noted;
};

/// Begins a call for arch_push_hook_stack.
extern "C" CallStart plthooks_begin_call(std::uint64_t id, void* return_address,
                                         void* stack_address) {
  const HookChain::Snapshot run_list = hooks::current_run_list(id);
  if (run_list.empty()) die("Run list for trampoline is empty");
  Frame* frame = claim_frame();
  if (frame == nullptr) return {run_list.original(), 0};
  frame->id = id;
  frame->return_address = return_address;
  frame->stack_address = stack_address;
  frame->run_list = run_list;
  return {run_list.newest(), 1};
}

}  // namespace lumora::plthooks
