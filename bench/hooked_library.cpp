// SPDX-License-Identifier: Apache-2.0
// The library that bench/hooks.cpp hooks. It calls the functions that it imports.
#include "hooked_library.h"

extern "C" {

void bench_call(long count) {
  for (long at = 0; at < count; ++at) bench_empty(at);
}

void bench_call_all() {
#define BENCH_CALL(name) name();
  BENCH_THOUSAND(BENCH_CALL)
}

}  // extern "C"
