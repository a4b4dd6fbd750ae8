// SPDX-License-Identifier: Apache-2.0
// Two libraries for bench/hooks.cpp: one defines a thousand functions, the other calls them.
#pragma once

// clang-format has no stable layout for these macros.
// clang-format off
#define BENCH_TEN(F, n) \
  F(n##0) F(n##1) F(n##2) F(n##3) F(n##4) F(n##5) F(n##6) F(n##7) F(n##8) F(n##9)
#define BENCH_HUNDRED(F, n)                                                    \
  BENCH_TEN(F, n##0) BENCH_TEN(F, n##1) BENCH_TEN(F, n##2) BENCH_TEN(F, n##3)  \
  BENCH_TEN(F, n##4) BENCH_TEN(F, n##5) BENCH_TEN(F, n##6) BENCH_TEN(F, n##7)  \
  BENCH_TEN(F, n##8) BENCH_TEN(F, n##9)
/// Expands to F(bench_import_000) ... F(bench_import_999).
#define BENCH_THOUSAND(F)                                                      \
  BENCH_HUNDRED(F, bench_import_0) BENCH_HUNDRED(F, bench_import_1)            \
  BENCH_HUNDRED(F, bench_import_2) BENCH_HUNDRED(F, bench_import_3)            \
  BENCH_HUNDRED(F, bench_import_4) BENCH_HUNDRED(F, bench_import_5)            \
  BENCH_HUNDRED(F, bench_import_6) BENCH_HUNDRED(F, bench_import_7)            \
  BENCH_HUNDRED(F, bench_import_8) BENCH_HUNDRED(F, bench_import_9)
// clang-format on

extern "C" {
#define BENCH_DECLARE(name) void name();
BENCH_THOUSAND(BENCH_DECLARE)
#undef BENCH_DECLARE
void bench_empty(long value);

// Functions of the calling library. All calls go through its GOT slots.

/// Calls bench_empty `count` times.
void bench_call(long count);
/// Calls each of the thousand functions once.
void bench_call_all();
}
