// SPDX-License-Identifier: Apache-2.0
// Changes to the list of functions of one hooked slot. Writers only.
#include "plthooks/hook_chain.h"

#include <cstddef>
#include <new>

namespace lumora::plthooks {

namespace {

constexpr std::uint64_t State(std::uint32_t size, std::uint32_t removals) {
  return std::uint64_t{removals} << 32 | size;
}

}  // namespace

HookChain::~HookChain() {
  for (Array* array = current_.load(); array != nullptr;) {
    Array* outgrown = array->outgrown;
    ::operator delete(array);
    array = outgrown;
  }
}

/// Appends to an array that is not full.
void HookChain::Append(Array& array, void* function) {
  const std::uint64_t state = array.state.load(std::memory_order_relaxed);
  new (array.elements() + static_cast<std::uint32_t>(state)) Element{function, {0}};
  array.state.store(state + 1, std::memory_order_release);
}

void HookChain::append(void* function) {
  Array* array = current_.load(std::memory_order_relaxed);
  const Snapshot all = snapshot();
  if (array != nullptr && all.size() < array->capacity) return Append(*array, function);
  const std::uint32_t capacity = 2 * (length() + 1);
  void* memory = ::operator new(sizeof(Array) + capacity * sizeof(Element));
  auto* larger = new (memory) Array{array, capacity, {0}};
  for (std::uint32_t index = 0; index < all.size(); ++index) {
    if (void* kept = all.element(index)) Append(*larger, kept);
  }
  Append(*larger, function);
  current_.store(larger, std::memory_order_release);
}

bool HookChain::remove(const void* function) {
  Array* array = current_.load(std::memory_order_relaxed);
  const Snapshot all = snapshot();
  for (std::uint32_t index = 1; index < all.size(); ++index) {
    if (all.element(index) != function) continue;
    const std::uint32_t removals = all.removals_ + 1;
    array->elements()[index].removal.store(removals, std::memory_order_relaxed);
    array->state.store(State(all.size(), removals), std::memory_order_release);
    return true;
  }
  return false;
}

}  // namespace lumora::plthooks
