// SPDX-License-Identifier: Apache-2.0
// Walks a stack by call-frame information. The fast path follows cached rules. A slow path, the
// detour, takes steps without a rule and steps that no rule can describe.
//
// The walk compares each address with the end of the readable stack before it reads there, because
// the tables may be damaged. The stack pointer only grows, except at signal frames, where the stack
// may change.
#include "platform/cfi/walk.h"

#include <atomic>

#include "arch/unwind.h"
#include "platform/cfi/known_objects.h"
#include "platform/cfi/loaded_object.h"
#include "platform/cfi/register_walk.h"
#include "platform/cfi/rule.h"
#include "platform/cfi/rule_cache.h"
#include "platform/readable_stack.h"

// The walk reads other functions' frames, where a sanitizer may keep red zones.
#define MEMLEAK_READS_STACK __attribute__((no_sanitize("address", "thread", "undefined")))

namespace platform::cfi {
namespace {

constexpr std::uint64_t kWordBytes = sizeof(std::uint64_t);
/// Maximum number of attempts if objects are unloaded during a walk.
constexpr int kAttempts = 3;
/// Maximum number of frames of the tracker and of signal handlers that a detour passes to reach a
/// frame.
constexpr int kMaxFrames = 4096;

std::atomic<std::uint64_t> g_slow_steps{0};

MEMLEAK_READS_STACK inline std::uint64_t WordAt(std::uint64_t address) {
  return *reinterpret_cast<const std::uint64_t*>(address);
}

/// Returns `value` and hides its origin from the compiler, which then computes two results in
/// parallel. The dependency chain between return addresses determines the speed of a walk.
template <typename T>
__attribute__((always_inline)) inline T Apart(T value) {
  __asm__("" : "+r"(value));
  return value;
}

/// The position of a walk and its output.
struct Position {
  Frame frame;
  ReadableStack stack;
  /// The stack pointer at the last signal frame; 0 before the first.
  std::uint64_t signal_sp = 0;
  std::uint64_t* pcs = nullptr;
  std::size_t count = 0;
  std::size_t max_pcs = 0;
};

/// Returns the rule of a return address that is not in the cache, and adds it.
Rule Learn(const RuleCache& cache, std::uint64_t return_address) {
  LoadedObject object;
  if (return_address == 0) return Rule::Other::kEnd;
  // Code outside of objects may change at any time, so its rules are not cached.
  if (!FindLoadedObject(return_address - 1, &object)) return MakeRule(nullptr, return_address);
  if (!RecordObject(object)) RuleCache::EndGeneration();
  const Rule rule = MakeRule(&object, return_address);
  cache.Add(return_address, rule);
  return rule;
}

/// Moves `at` to the frame of `walk`. Stores the pcs of interrupted functions before that frame.
/// Returns false if the walk is over.
__attribute__((always_inline)) inline bool LeaveInterrupted(RegisterWalk* walk, Position* at) {
  while (walk->interrupted()) {
    if (at->count < at->max_pcs) at->pcs[at->count++] = walk->pc();
    if (at->count == at->max_pcs || !walk->Step()) return false;
  }
  at->frame = {walk->pc(), walk->sp(), walk->fp()};
  at->stack = walk->stack();
  return true;
}

__attribute__((noinline)) bool StepOverSignal(Position* at) {
  RegisterWalk walk(at->stack);
  if (!walk.EnterInterrupted(at->frame.sp)) return false;
  at->signal_sp = at->frame.sp;
  return LeaveInterrupted(&walk, at);
}

/// Moves `walk`, in which all registers are known, to the frame of `at`, and then both to the
/// caller's frame.
__attribute__((always_inline)) inline bool StepInWalk(RegisterWalk* walk, Position* at) {
  for (int frames = 0; walk->sp() != at->frame.sp || walk->pc() != at->frame.return_address;
       ++frames) {
    if (frames == kMaxFrames || !walk->Step()) return false;
  }
  return walk->Step() && LeaveInterrupted(walk, at);
}

/// Take a step that needs more registers than the fast path tracks. They start at the last frame in
/// which all registers are known: a signal frame or this function.
__attribute__((noinline)) bool StepFromSignal(Position* at) {
  RegisterWalk walk{ReadableStack(at->signal_sp)};
  return walk.EnterInterrupted(at->signal_sp) && StepInWalk(&walk, at);
}
__attribute__((noinline)) bool StepFromHere(Position* at) {
  RegisterWalk walk;
  return StepInWalk(&walk, at);
}

/// Takes a step and checks each address that it reads.
bool StepByRule(Rule rule, Position* at) {
  Frame& frame = at->frame;
  ReadableStack& stack = at->stack;
  const std::uint64_t base = rule.kind() == Rule::kStackStep ? frame.sp : frame.fp;
  std::uint64_t cfa = base + rule.distance();
  if (rule.kind() == Rule::kSavedStep && !stack.Read(cfa, &cfa)) return false;
  if (cfa <= frame.sp || !stack.Holds(cfa - kWordBytes, kWordBytes)) return false;
  const std::uint64_t places = rule.from_register() ? base : cfa;
  Frame caller{0, cfa, frame.fp};
  if (rule.saves_frame_pointer() && !stack.Read(places + rule.frame_pointer(), &caller.fp)) {
    return false;
  }
  const std::uint64_t place =
      arch::kCallPushesReturnAddress ? cfa - kWordBytes : places + rule.return_address();
  if (!stack.Read(place, &caller.return_address)) return false;
  caller.return_address = arch::StripReturnAddress(caller.return_address);
  frame = caller;
  return true;
}

/// Takes any step. Returns false if the stack ends here.
bool Detour(const RuleCache& cache, Position* at) {
  Rule rule = cache.Find(at->frame.return_address);
  if (!rule.IsOf(cache.generation())) rule = Learn(cache, at->frame.return_address);
  if (rule.kind() != Rule::kOther) return StepByRule(rule, at);
  switch (rule.other()) {
    case Rule::Other::kSignal:
      return StepOverSignal(at);
    case Rule::Other::kSlow:
      g_slow_steps.fetch_add(1, std::memory_order_relaxed);
      return at->signal_sp != 0 ? StepFromSignal(at) : StepFromHere(at);
    default:
      return false;
  }
}

/// Follows cached rules to the first step that needs Detour. Returns false if the walk is over. A
/// separate function, so that its registers are not on the stack during a detour.
__attribute__((noinline)) MEMLEAK_READS_STACK bool WalkByRules(const RuleCache& cache,
                                                               Position* at) {
  const RuleCache rules = cache;  // a local copy stays in registers
  const std::uint64_t stack_tag = rules.generation();
  const std::uint64_t frame_tag =
      stack_tag | (std::uint64_t{Rule::kFrameStep} << Rule::kGenerationBits);
  const std::uint64_t frame_record = Rule::FrameRecordStep().WithGeneration(stack_tag).word();
  std::uint64_t* next = at->pcs + at->count;
  std::uint64_t* const last = at->pcs + at->max_pcs;
  std::uint64_t return_address = at->frame.return_address;
  std::uint64_t sp = at->frame.sp;
  // The frame pointer is read only if it is needed. Until then only its address is computed, which
  // needs no branch.
  std::uint64_t fp_place = reinterpret_cast<std::uint64_t>(&at->frame.fp);
  std::uint64_t stack_end = at->stack.KnownEnd();
  bool needs_detour = false;
  while (return_address != 0) {
    *next++ = return_address - arch::kCallSiteAdjustment;
    if (next == last) break;
    const Rule rule = rules.Find(return_address);
    if (rule.word() == frame_record) {
      // All such rules are equal. So the processor predicts this branch, and the next iteration
      // does not wait for the load of the rule.
      const std::uint64_t record = WordAt(fp_place);
      const std::uint64_t room = stack_end - sp;
      if (record - sp <= room && record + sizeof(arch::FrameRecord) - sp <= room) {
        return_address = arch::StripReturnAddress(WordAt(record + kWordBytes));
        sp = record + sizeof(arch::FrameRecord);
        fp_place = record;
        continue;
      }
    }
    needs_detour = true;
    std::uint64_t base = sp;
    if (__builtin_expect(rule.tag() != stack_tag, 0)) {
      base = WordAt(fp_place);
      if (rule.tag() != frame_tag || base - sp > stack_end - sp) break;
    }
    const std::uint64_t distance = rule.distance();
    const std::uint64_t cfa = base + distance;
    if (__builtin_expect(cfa > stack_end, 0)) {
      if (!at->stack.Holds(cfa - kWordBytes, kWordBytes)) break;
      stack_end = at->stack.KnownEnd();
    }
    const std::uint64_t places = rule.from_register() ? base : cfa;
    const std::uint64_t saved_fp_place = Apart(places + rule.frame_pointer());
    fp_place = rule.saves_frame_pointer() ? saved_fp_place : fp_place;
    return_address = arch::StripReturnAddress(arch::kCallPushesReturnAddress
                                                  ? WordAt(base + Apart(distance) - kWordBytes)
                                                  : WordAt(places + rule.return_address()));
    sp = cfa;
    needs_detour = false;
  }
  at->frame = {return_address, sp, WordAt(fp_place)};
  at->count = static_cast<std::size_t>(next - at->pcs);
  return needs_detour;
}

}  // namespace

std::size_t WalkFrames(std::uint64_t return_address, std::uint64_t sp, std::uint64_t fp,
                       std::uint64_t* pcs, std::size_t max_pcs) {
  if (max_pcs == 0) return 0;
  for (int attempt = 1;; ++attempt) {
    const RuleCache cache;
    Position at{{return_address, sp, fp}, ReadableStack(sp), 0, pcs, 0, max_pcs};
    while (WalkByRules(cache, &at) && Detour(cache, &at) && at.count < max_pcs) {
    }
    if (attempt == kAttempts || cache.IsCurrent()) return at.count;
  }
}

bool StepToCaller(Frame* frame) {
  std::uint64_t interrupted_pcs[2] = {};
  Position at{*frame, ReadableStack(frame->sp), 0, interrupted_pcs, 0, 2};
  if (frame->return_address == 0 || !Detour(RuleCache(), &at)) return false;
  *frame = at.frame;
  return frame->return_address != 0;
}

std::uint64_t EndOfFrame(std::uint64_t return_address, std::uint64_t record) {
  const RuleCache cache;
  Rule rule = cache.Find(return_address);
  if (!rule.IsOf(cache.generation())) rule = Learn(cache, return_address);
  if (rule.kind() == Rule::kOther || rule.kind() == Rule::kSavedStep) return 0;
  if (!rule.saves_frame_pointer()) return 0;
  return record - rule.frame_pointer() + (rule.from_register() ? rule.distance() : 0);
}

std::uint64_t SlowSteps() {
  return g_slow_steps.load(std::memory_order_relaxed);
}

}  // namespace platform::cfi
