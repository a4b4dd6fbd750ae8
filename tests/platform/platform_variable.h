// The environment that points the platform somewhere else.
#pragma once

#include <stdlib.h>

#include "platform/linux/environment.h"

/// Sets a variable (unsets it when `value` is null) and lets the platform see it.
inline void SetVariable(const char* name, const char* value) {
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
  platform::CaptureEnvironment();
}
