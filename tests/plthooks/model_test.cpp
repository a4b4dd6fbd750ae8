// SPDX-License-Identifier: Apache-2.0
// Compares the hook engine with a list per slot: random hooks, unhooks, wrong requests and calls,
// on several threads and inside running hooks, while a library is loaded and unloaded.
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
#include "sigmux/sig_safe_write.h"
#include "tests/plthooks/support.h"

namespace lumora::plthooks {
namespace {

constexpr int kDirectBonus = 100;
constexpr int kDeepest = 3;

/// The hooks of one slot by number, oldest first, without the original function.
using List = std::vector<int>;

int Random(std::size_t limit) {
  static std::mt19937 generator;
  return static_cast<int>(generator() % limit);
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
             bool without_trampoline = false, const char* definer = nullptr) const {
    auto* function_pointer = reinterpret_cast<void*>(hook);
    plt_hook_spec spec = {function, definer, function_pointer, without_trampoline, 0, nullptr};
    return change(library, &spec, 1) == 0 ? static_cast<int>(spec.hook_result) : -errno;
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

void Unhook(Slot& slot) {
  List& list = slot.list;
  const int hook = list.empty() || Random(4) == 0 ? Random(kHookCount) : list[Random(list.size())];
  const auto found = slot.direct ? list.begin() : std::find(list.begin(), list.end(), hook);
  const bool there = found != list.end();
  EXPECT_EQ(slot.Change(unhook_single_lib, slot.direct ? Direct : kHooks[hook]), there ? 1 : 0);
  if (there) list.erase(found);
  slot.direct &= !list.empty();
}

void Hook(Slot& slot) {
  if (slot.list.size() > 3) return Unhook(slot);
  const int hook = Random(kHookCount);
  const bool direct = Random(8) == 0;
  const char* const definer = Random(8) == 0 ? "libplthooks_definer.so" : nullptr;
  // A hooked slot does not contain the address of the defined function any more.
  const bool found = IsLoaded(slot) && (slot.list.empty() || definer == nullptr);
  const bool refused = found && !slot.list.empty() && (direct || slot.direct);
  const int changed = slot.Change(hook_single_lib, direct ? Direct : kHooks[hook], direct, definer);
  EXPECT_EQ(changed, refused ? -EBUSY : found ? 1 : 0);
  if (refused || !found) return;
  slot.direct = direct;
  slot.list.push_back(direct ? 0 : hook);
}

/// Requests that change nothing.
void Refuse(Slot& slot) {
  auto* hook = reinterpret_cast<void*>(kHooks[0]);
  plt_hook_spec specs[] = {{nullptr, nullptr, hook, false, 0, nullptr},
                           {slot.function, nullptr, nullptr, false, 0, nullptr},
                           {"getppid", nullptr, hook, false, 0, nullptr}};
  EXPECT_EQ(hook_single_lib(slot.library, specs, 3), 2);
  EXPECT_EQ(errno, EINVAL);
  for (const char* library : {slot.library, "libnone.so"}) {
    EXPECT_EQ(hook_plt_method(library, "getppid", hook), 1);
    EXPECT_EQ(errno, ENOENT);
  }
  if (slot.list.empty()) return;
  // The original function cannot be unhooked.
  plt_hook_spec original = {slot.function, nullptr, slot.original, false, 0, nullptr};
  EXPECT_EQ(unhook_single_lib(slot.library, &original, 1), 1);
  EXPECT_EQ(errno, EINVAL);
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
  // Drops the record if the library was unloaded: it may be loaded elsewhere now.
  linker::sharedLib(kGuestName);
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
  Slot& slot = slots[Random(slots.size())];
  void (*const actions[])(Slot&) = {Hook, Hook, Unhook, Unhook, Call, Call, Call, Refuse};
  auto* action = actions[Random(8)];
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
  EXPECT_EQ(sig_safe_write(slot.address, reinterpret_cast<std::intptr_t>(content)), 1)
      << "the page must stay read-only";
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
#if defined(__SANITIZE_THREAD__)
  constexpr int kSteps = 300;  // slow, and only one thread runs at a time
#else
  constexpr int kSteps = 2500;
#endif
  for (int step = 0; step < kSteps && !HasFailure(); ++step) Step();
}

}  // namespace
}  // namespace lumora::plthooks
