// SPDX-License-Identifier: Apache-2.0
// Selects the system's implementation of ThreadMark.
#pragma once

#ifdef __ANDROID__
#include "platform/android/thread_mark.h"
#else
#include "platform/linux/thread_mark.h"
#endif
