// What thread-specific keys cost. Used at start-up, when the tracker makes its own.
#pragma once

#include <pthread.h>

namespace platform {

/// Whether pthread_setspecific on `key` never allocates, on any thread: the tracker marks threads
/// inside the allocator. Android keeps all keys in an array of the thread; glibc those below 32,
/// and allocates room for the others when a thread first sets one. Any thread, any context.
bool ThreadKeyNeverAllocates(pthread_key_t key);

}  // namespace platform
