// The hook engine beside a plain list for each slot: random hooks, unhooks and calls, on several
// threads, and from inside hooks that are running.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "plthooks/hooks.h"
#include "tests/plthooks/support.h"

namespace lumora::plthooks {
namespace {

constexpr int kDirectBonus = 100;
constexpr int kDeepest = 3;

/// Functions of one slot, oldest first, without the original: numbers of hooks.
using List = std::vector<int>;

int Random(int limit) {
  static std::mt19937 generator;
  return static_cast<int>(generator() % static_cast<unsigned>(limit));
}

void Enter(int hook);

template <int kHook>
int Forward(int value) {
  Enter(kHook);
  return Previous(Forward<kHook>)(value);
}
int Direct(int value) {
  return value + kDirectBonus;
}
int (*const kHooks[])(int) = {Forward<0>, Forward<1>, Forward<2>, Forward<3>};
constexpr int kHookCount = 4;

struct Slot {
  const Library* library;
  const char* function;
  int (*call)(int);
  int added;  ///< by the original function
  void** address = library->slot(function);
  void* original = *address;
  List list = {};
  bool direct = false;

  int Change(int (*change)(const char*, plt_hook_spec*, std::size_t), int (*hook)(int),
             bool without_trampoline = false) const {
    auto* function_pointer = reinterpret_cast<void*>(hook);
    plt_hook_spec spec = {function, nullptr, function_pointer, without_trampoline, 0, nullptr};
    const int failures = change(library->name(), &spec, 1);
    return failures == 0 ? static_cast<int>(spec.hook_result) : -1;
  }
};

std::vector<Slot> slots;

/// A running call: what the slot's list was, and the hook that is to be entered next.
struct Running {
  List list;
  std::size_t left;
};
thread_local std::vector<Running> running;
int depth = 0;  // on all threads: one of them goes on at a time

void Step();

void Enter(int hook) {
  Running& call = running.back();
  ASSERT_GT(call.left, 0U) << "a hook too many";
  EXPECT_EQ(hook, call.list[call.left - 1]);
  // A hook that is there twice finds what stands before the first of the two.
  call.left = static_cast<std::size_t>(std::find(call.list.begin(), call.list.end(), hook) -
                                       call.list.begin());
  if (depth < kDeepest) Step();
}

void Call(Slot& slot) {
  running.push_back({slot.direct ? List() : slot.list, slot.direct ? 0 : slot.list.size()});
  const int expected = slot.direct ? 1000 + kDirectBonus : 1000 + slot.added;
  ++depth;
  EXPECT_EQ(slot.call(1000), expected);
  --depth;
  EXPECT_EQ(running.back().left, 0U) << "a hook too few";
  running.pop_back();
}

void Hook(Slot& slot) {
  const int hook = Random(kHookCount);
  const bool direct = Random(8) == 0;
  const bool refused = !slot.list.empty() && (direct || slot.direct);
  const int changed = slot.Change(hook_single_lib, direct ? Direct : kHooks[hook], direct);
  EXPECT_EQ(changed, refused ? -1 : 1);
  EXPECT_TRUE(!refused || errno == EBUSY);
  if (refused) return;
  slot.direct = direct;
  slot.list.push_back(direct ? -1 : hook);
}

void Unhook(Slot& slot) {
  const int hook = Random(kHookCount);
  const auto found =
      slot.direct ? slot.list.begin() : std::find(slot.list.begin(), slot.list.end(), hook);
  const bool there = found != slot.list.end();
  EXPECT_EQ(slot.Change(unhook_single_lib, slot.direct ? Direct : kHooks[hook]), there ? 1 : 0);
  if (there) slot.list.erase(found);
  slot.direct &= !slot.list.empty();
}

void Step() {
  if (testing::Test::HasFailure()) return;
  Slot& slot = slots[static_cast<std::size_t>(Random(static_cast<int>(slots.size())))];
  void (*const actions[])(Slot&) = {Hook, Unhook, Call, Call};
  auto* action = actions[Random(4)];
  if (Random(4) == 0) {
    std::thread(action, std::ref(slot)).join();
  } else {
    action(slot);
  }
  void* const content = *slot.address;
  EXPECT_EQ(content == slot.original, slot.list.empty());
  EXPECT_EQ(content == reinterpret_cast<void*>(Direct), slot.direct);
  EXPECT_EQ(hooks::is_hooked(reinterpret_cast<std::uintptr_t>(slot.address)), !slot.list.empty());
}

TEST(Engine, DoesAsListsWould) {
  const Library full;
  const Library guest(CALLS_GUEST);
  for (const Library* library : {&full, &guest}) {
    slots.push_back({library, "calls_target", library->find<int(int)>("calls_call"), 1});
    slots.push_back({library, "calls_other", library->find<int(int)>("calls_call_other"), 2});
  }
  for (int step = 0; step < 3000 && !HasFailure(); ++step) Step();
}

TEST(Registry, DoesAsAListWould) {
  using namespace hooks;  // NOLINT: the whole of it is meant
  char functions[6];      // the first is the original
  void* slot = nullptr;
  std::uint64_t id = 0;
  std::vector<void*> list;
  bool direct = false;
  for (int step = 0; step < 5000 && !HasFailure(); ++step) {
    void* const function = Random(8) == 0 ? nullptr : functions + Random(6);
    HookInfo info = {0, &slot, function, functions, Random(8) == 0};
    const auto found = std::find(list.begin(), list.end(), function);
    int code = function == nullptr ? HOOK_INVALID : list.empty() ? HOOK_UNKNOWN : 0;
    if (Random(2) == 0) {
      if (code == 0) code = direct ? HOOK_NOT_CHAINABLE : HOOK_APPENDED;
      if (code == HOOK_UNKNOWN) code = HOOK_NEW;
      ASSERT_EQ(add(info), code);
      if (code == HOOK_NEW) {
        EXPECT_GT(info.out_id, std::exchange(id, info.out_id));
        list = {functions};
        direct = info.no_trampoline;
      }
      if (code == HOOK_NEW || code == HOOK_APPENDED) list.push_back(function);
    } else {
      if (code == 0 && found == list.begin()) {
        code = list.size() == 1 ? HOOK_REMOVED_FULLY : HOOK_INVALID;
      } else if (code == 0 && list.size() == 1) {
        code = HOOK_INVALID;
      } else if (code == 0) {
        code = found == list.end() ? HOOK_UNKNOWN
               : list.size() == 2  ? HOOK_REMOVED_TRIVIAL
                                   : HOOK_REMOVED_STILL_HOOKED;
      }
      ASSERT_EQ(remove(info), code);
      if (code > 0) list.erase(found);
    }
    EXPECT_EQ(is_hooked(reinterpret_cast<std::uintptr_t>(&slot)), !list.empty());
    // A forgotten slot's record is still there for running calls.
    EXPECT_EQ(get_run_list(id), list.empty() && id != 0 ? RunList{functions} : list);
  }
  EXPECT_TRUE(get_run_list(id + 1000).empty());
}

}  // namespace
}  // namespace lumora::plthooks
