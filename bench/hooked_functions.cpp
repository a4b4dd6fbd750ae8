// SPDX-License-Identifier: Apache-2.0
// The functions that bench/hooked_library.cpp imports.
#include "hooked_library.h"

extern "C" {
#define BENCH_DEFINE(name) \
  void name() {}
BENCH_THOUSAND(BENCH_DEFINE)
void bench_empty(long /*value*/) {}
}
