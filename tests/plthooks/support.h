// SPDX-License-Identifier: Apache-2.0
// Shared by the tests of the hook engine: a library to hook.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "linker/sharedlibs.h"
#include "plthooks/plthooks.h"
#include "plthooks/trampoline.h"
#include "tests/plthooks/fixtures/calls.h"

/// A loaded library, never unloaded, and an initialized engine.
class Library {
 public:
  Library() {
    EXPECT_NE(handle_, nullptr) << dlerror();
    EXPECT_EQ(lumora::plthooks::plthooks_initialize(), 0);
  }
  const char* name() const { return name_.c_str(); }

  /// The address of a symbol that the library or one of its dependencies defines.
  template <typename T>
  T* find(const char* symbol) const {
    return reinterpret_cast<T*>(dlsym(handle_, symbol));
  }
  /// The slot through which the library calls `function`.
  void** slot(const char* function = "calls_target") const {
    const auto library = lumora::linker::sharedLib(name());
    return library.get_plt_relocations(library.find_symbol_by_name(function)).at(0);
  }
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
  std::string name_ = lumora::linker::plt_basename(CALLS_FULL);
  void* handle_ = dlopen(CALLS_FULL, RTLD_NOW);
  decltype(&calls_call) call_ = find<decltype(calls_call)>("calls_call");
};

/// The function that a hook must call next, as a pointer of the hook's own type.
template <typename Function>
Function* Previous(Function* hook) {
  return reinterpret_cast<Function*>(
      lumora::plthooks::get_previous_from_hook(reinterpret_cast<void*>(hook)));
}
