// SPDX-License-Identifier: Apache-2.0
// Shared by the tests of the hook engine: fixture libraries, their slots, and death tests.
#pragma once

#include <functional>
#include <string>

#include "plthooks/plthooks.h"
#include "plthooks/trampoline.h"
#include "tests/plthooks/fixtures/calls.h"

/// Loads the library at `path`, never unloads it, and initializes the engine.
class Library {
 public:
  explicit Library(const char* path = CALLS_FULL, bool resolve_now = true);

  const char* name() const { return name_.c_str(); }

  /// The address of a symbol that the library or one of its dependencies defines.
  template <typename T>
  T* find(const char* symbol) const {
    return reinterpret_cast<T*>(address(symbol));
  }
  void* address(const char* symbol) const;

  /// The slot through which the library calls `function`; null if there is none.
  void** slot(const char* function = "calls_target") const;

  template <typename T>
  int Hook(T* hook, const char* function = "calls_target") const {
    return lumora::plthooks::hook_plt_method(name(), function, reinterpret_cast<void*>(hook));
  }
  template <typename T>
  int Unhook(T* hook, const char* function = "calls_target") const {
    return lumora::plthooks::unhook_plt_method(name(), function, reinterpret_cast<void*>(hook));
  }
  int Call(int value) const { return call_(value); }

 private:
  std::string name_;
  void* handle_;
  decltype(&calls_call) call_;
};

/// The rights to the page of `address`, such as "rw-", from /proc/self/maps; "" if not mapped.
std::string Rights(const void* address);

/// Whether a log line since the last call ends in `text`. Clears the log.
bool Logged(const std::string& text);

/// Runs `work`. At a SIGABRT prints the last log line to stderr and exits with code 3. For death
/// tests.
void ReportAbort(const std::function<void()>& work);

/// The function that a hook must call next, as a pointer of the hook's own type.
template <typename Function>
Function* Previous(Function* hook) {
  return reinterpret_cast<Function*>(
      lumora::plthooks::get_previous_from_hook(reinterpret_cast<void*>(hook)));
}
