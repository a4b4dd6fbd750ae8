// SPDX-License-Identifier: Apache-2.0
// The definition of a function that follows the loader's own in the program's search order.
#pragma once

#include <dlfcn.h>

#include <atomic>

namespace host {

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
      found = reinterpret_cast<Pointer>(dlsym(RTLD_NEXT, name_));
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
