// SPDX-License-Identifier: Apache-2.0
// Compares the hook engine with a list per slot: random hooks, unhooks and calls, on several
// threads and inside running hooks, while a library is loaded and unloaded.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "linker/sharedlibs.h"
#include "plthooks/hooks.h"
#include "tests/plthooks/support.h"

namespace lumora::plthooks {
namespace {

constexpr int kDirectBonus = 100;
constexpr int kDeepest = 3;

/// The hooks of one slot by number, oldest first, without the original function.
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

const char* const kGuestName = "libplthooks_guest.so";
void* guest = nullptr;  // the test's handle

struct Slot {
  const char* library;
  const char* function;
  const char* caller;
  int added;  ///< by the original function to its argument
  int (*call)(int) = nullptr;
  void** address = nullptr;
  void* original = nullptr;
  List list = {};
  bool direct = false;

  bool IsGuest() const { return library == kGuestName; }
  /// Finds the addresses again: the library may have been loaded elsewhere.
  void Find(void* handle) {
    call = reinterpret_cast<int (*)(int)>(dlsym(handle, caller));
    const auto index = linker::sharedLib(library);
    const auto found = index.get_plt_relocations(index.find_symbol_by_name(function));
    ASSERT_EQ(found.size(), 1U);
    address = found.front();
    if (list.empty()) original = *address;
  }
  int Change(int (*change)(const char*, plt_hook_spec*, std::size_t), int (*hook)(int),
             bool without_trampoline = false) const {
    auto* function_pointer = reinterpret_cast<void*>(hook);
    plt_hook_spec spec = {function, nullptr, function_pointer, without_trampoline, 0, nullptr};
    const int failures = change(library, &spec, 1);
    return failures == 0 ? static_cast<int>(spec.hook_result) : -1;
  }
};

std::vector<Slot> slots;

/// A running call: the slot's list when the call began, and the index after the next hook.
struct Running {
  List list;
  std::size_t left;
};
thread_local std::vector<Running> running;
int depth = 0;  // of all threads: only one runs at a time

void Step();

void Enter(int hook) {
  Running& call = running.back();
  ASSERT_GT(call.left, 0U) << "a hook too many";
  EXPECT_EQ(hook, call.list[call.left - 1]);
  // A hook that is twice in the list calls the function before its first entry.
  call.left = static_cast<std::size_t>(std::find(call.list.begin(), call.list.end(), hook) -
                                       call.list.begin());
  if (depth < kDeepest) Step();
}

/// Whether the slot's library is loaded: the test or a hook keeps it.
bool IsLoaded(const Slot& slot) {
  const auto holds = [](const Slot& each) { return each.IsGuest() && !each.list.empty(); };
  return !slot.IsGuest() || guest != nullptr || std::any_of(slots.begin(), slots.end(), holds);
}

void Call(Slot& slot) {
  // Without the test's handle, the library may be unloaded when a hook is removed.
  if (slot.IsGuest() && guest == nullptr) return;
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
  const bool loaded = IsLoaded(slot);
  const bool refused = !loaded || (!slot.list.empty() && (direct || slot.direct));
  const int changed = slot.Change(hook_single_lib, direct ? Direct : kHooks[hook], direct);
  EXPECT_EQ(changed, refused ? -1 : 1);
  EXPECT_TRUE(!refused || errno == (loaded ? EBUSY : ENOENT));
  if (refused) return;
  slot.direct = direct;
  slot.list.push_back(direct ? -1 : hook);
}

void Unhook(Slot& slot) {
  const int hook = Random(kHookCount);
  const auto found =
      slot.direct ? slot.list.begin() : std::find(slot.list.begin(), slot.list.end(), hook);
  const bool there = found != slot.list.end();
  const int expected = there ? 1 : IsLoaded(slot) ? 0 : -1;
  EXPECT_EQ(slot.Change(unhook_single_lib, slot.direct ? Direct : kHooks[hook]), expected);
  if (there) slot.list.erase(found);
  slot.direct &= !slot.list.empty();
}

/// Closes the test's handle of the guest, or opens it again.
void LoadOrUnload() {
  if (guest != nullptr) {
    dlclose(std::exchange(guest, nullptr));
    void* found = dlopen(CALLS_GUEST, RTLD_NOW | RTLD_NOLOAD);
    const auto is_guest = [](const Slot& slot) { return slot.IsGuest(); };
    EXPECT_EQ(found != nullptr, IsLoaded(*std::find_if(slots.begin(), slots.end(), is_guest)));
    if (found != nullptr) dlclose(found);
    return;
  }
  guest = dlopen(CALLS_GUEST, RTLD_NOW);
  ASSERT_EQ(plthooks_initialize(), 0);
  for (Slot& slot : slots) {
    if (slot.IsGuest()) slot.Find(guest);
  }
}

void Step() {
  if (testing::Test::HasFailure()) return;
  // A running call may be in the guest.
  if (Random(8) == 0 && depth == 0) return LoadOrUnload();
  Slot& slot = slots[static_cast<std::size_t>(Random(static_cast<int>(slots.size())))];
  void (*const actions[])(Slot&) = {Hook, Unhook, Call, Call};
  auto* action = actions[Random(4)];
  if (Random(4) == 0) {
    std::thread(action, std::ref(slot)).join();
  } else {
    action(slot);
  }
  if (!IsLoaded(slot)) return;
  void* const content = *slot.address;
  EXPECT_EQ(content == slot.original, slot.list.empty());
  EXPECT_EQ(content == reinterpret_cast<void*>(Direct), slot.direct);
  EXPECT_EQ(hooks::is_hooked(reinterpret_cast<std::uintptr_t>(slot.address)), !slot.list.empty());
}

TEST(Engine, MatchesTheModel) {
  const Library full;
  for (const char* library : {full.name(), kGuestName}) {
    slots.push_back({library, "calls_target", "calls_call", 1});
    slots.push_back({library, "calls_other", "calls_call_other", 2});
  }
  for (Slot& slot : slots) {
    if (!slot.IsGuest()) slot.Find(dlopen(CALLS_FULL, RTLD_NOW));
  }
  LoadOrUnload();
  for (int step = 0; step < 3000 && !HasFailure(); ++step) Step();
}

}  // namespace
}  // namespace lumora::plthooks
