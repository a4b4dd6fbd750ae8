// SPDX-License-Identifier: Apache-2.0
// Code whose stacks are hard to walk, for the test that executes it in single steps.
//
// Built without frame pointers. Each function runs one construct on the calling thread.
#pragma once

struct SteppedCode {
  const char* name;
  void (*run)();
};

extern const SteppedCode kSteppedCode[];
extern const int kSteppedCodeCount;
