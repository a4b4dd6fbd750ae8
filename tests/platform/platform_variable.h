// SPDX-License-Identifier: Apache-2.0
// Changes the environment variables that configure the platform.
#pragma once

#include <stdlib.h>

#include "platform/linux/environment.h"

/// Sets a variable, or unsets it if `value` is null, and makes the platform read it.
inline void SetVariable(const char* name, const char* value) {
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
  platform::CaptureEnvironment();
}
