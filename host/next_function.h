// SPDX-License-Identifier: Apache-2.0
// Finds the function that the program would call without the loader.
#pragma once

#include <atomic>

namespace host {

/// Returns the function `name` to which the loader's function of that name forwards; null if there
/// is none. For a preloaded loader this is the next definition after the loader in the search
/// order, otherwise the program's. Takes the dynamic linker's lock.
void* NextDefinition(const char* name);

template <typename Signature>
class NextFunction;

/// A function that is looked up at its first use. Call Find early: then later calls take no lock
/// and are safe in signal handlers.
template <typename Result, typename... Arguments>
class NextFunction<Result(Arguments...)> {
 public:
  using Pointer = Result (*)(Arguments...);

  explicit constexpr NextFunction(const char* name) : name_(name) {}

  /// Returns the function; null if there is none. Takes the dynamic linker's lock until the
  /// function is found. Any thread.
  Pointer Find() {
    Pointer found = found_.load(std::memory_order_relaxed);
    if (found == nullptr) {
      found = reinterpret_cast<Pointer>(NextDefinition(name_));
      found_.store(found, std::memory_order_relaxed);
    }
    return found;
  }

  /// Calls the function, which must exist.
  Result operator()(Arguments... arguments) { return Find()(arguments...); }

 private:
  const char* const name_;
  std::atomic<Pointer> found_{nullptr};
};

}  // namespace host
