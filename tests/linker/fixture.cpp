// SPDX-License-Identifier: Apache-2.0
// A library to index: imports one function, defines another, and calls both through its PLT.
#include <unistd.h>

extern "C" {

__attribute__((noinline)) int fixture_defined(int value) {
  return value * 3 + static_cast<int>(getppid());
}

int fixture_caller(int value) {
  return fixture_defined(value) + static_cast<int>(getppid());
}

}  // extern "C"
