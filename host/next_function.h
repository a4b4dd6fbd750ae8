// SPDX-License-Identifier: Apache-2.0
// The definition of a function that the program would use without the loader.
#pragma once

#include <atomic>

namespace host {

/// Returns the definition of a function to which the loader's own forwards, null if there is none.
/// After the loader in the search order if it was preloaded, else the program's. Takes the dynamic
/// linker's lock.
void* NextDefinition(const char* name);

template <typename Signature>
class NextFunction;

/// Looks the function up at the first call. Call Find early, so that later calls, also in signal
/// handlers, only read.
template <typename Result, typename... Arguments>
class NextFunction<Result(Arguments...)> {
 public:
  using Pointer = Result (*)(Arguments...);

  explicit constexpr NextFunction(const char* name) : name_(name) {}

  /// Returns the function, null if there is none. The first call takes the dynamic linker's lock.
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
