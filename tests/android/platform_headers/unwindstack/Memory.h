// What a device's header has and the one here, which is a release older, has not.
#pragma once

#include_next <unwindstack/Memory.h>

#define CreateProcessMemoryThreadCached CreateProcessMemory
