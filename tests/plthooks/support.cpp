// SPDX-License-Identifier: Apache-2.0
// Shared by the tests of the hook engine.
#include "tests/plthooks/support.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "linker/sharedlibs.h"
#include "tests/records/log_capture.h"

Library::Library(const char* path, bool resolve_now)
    : name_(lumora::linker::plt_basename(path)),
      handle_(dlopen(path, resolve_now ? RTLD_NOW : RTLD_LAZY)) {
  EXPECT_NE(handle_, nullptr) << dlerror();
  EXPECT_EQ(lumora::plthooks::plthooks_initialize(), 0);
  EXPECT_TRUE(lumora::linker::sharedLib(path));
  call_ = find<decltype(calls_call)>("calls_call");
  // Drops the log lines about libraries that have no PLT calls.
  LogLines().clear();
}

void* Library::address(const char* symbol) const {
  void* found = dlsym(handle_, symbol);
  EXPECT_NE(found, nullptr) << symbol;
  return found;
}

void** Library::slot(const char* function) const {
  const auto library = lumora::linker::sharedLib(name());
  const auto slots = library.get_plt_relocations(library.find_symbol_by_name(function));
  return slots.empty() ? nullptr : slots.front();
}

std::string Rights(const void* address) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t start = 0;
    std::uintptr_t end = 0;
    char rights[5] = {};
    if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &start, &end, rights) == 3 &&
        reinterpret_cast<std::uintptr_t>(address) >= start &&
        reinterpret_cast<std::uintptr_t>(address) < end) {
      return std::string(rights, 3);
    }
  }
  return "";
}

bool Logged(const std::string& text) {
  bool found = false;
  for (const std::string& line : LogLines()) {
    found |= line.size() >= text.size() && line.substr(line.size() - text.size()) == text;
  }
  LogLines().clear();
  return found;
}

void ReportAbort(const std::function<void()>& work) {
  std::signal(SIGABRT, [](int /*signal*/) {
    std::fprintf(stderr, "%s\n", LogLines().back().c_str());
    _exit(3);
  });
  work();
}
