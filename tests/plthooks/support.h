// SPDX-License-Identifier: Apache-2.0
// What the tests of the hook engine share: fixture libraries, their slots, and ends of processes.
#pragma once

#include <functional>
#include <string>

#include "plthooks/plthooks.h"
#include "plthooks/trampoline.h"
#include "tests/plthooks/fixtures/calls.h"

/// Loads the library at `path` for good and makes the engine ready.
class Library {
 public:
  explicit Library(const char* path = CALLS_FULL, bool resolve_now = true);

  const char* name() const { return name_.c_str(); }

  /// What the library defines, or what it links to.
  template <typename T>
  T* find(const char* symbol) const {
    return reinterpret_cast<T*>(address(symbol));
  }
  void* address(const char* symbol) const;

  /// The slot through which it calls `function`; null when there is none.
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

/// The rights to the page of `address`, as "rw-", from the process's maps; "" when not mapped.
std::string Rights(const void* address);

/// Whether a log line since the last call ended in `text`. Forgets all lines.
bool Logged(const std::string& text);

/// Runs `work` with an end by SIGABRT turned into exit code 3 and the last log line on the error
/// output. For death tests.
void ReportAbort(const std::function<void()>& work);

/// What a hook calls to go on, as a pointer of its own type.
template <typename Function>
Function* Previous(Function* hook) {
  return reinterpret_cast<Function*>(
      lumora::plthooks::get_previous_from_hook(reinterpret_cast<void*>(hook)));
}
