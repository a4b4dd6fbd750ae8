// SPDX-License-Identifier: Apache-2.0
// Guards for the C library's reader-writer lock. A failing lock call ends the process: the data
// that the lock guards can no longer be trusted.
//
// Used by the library index and the hook engine, on any thread. Not for signal handlers.
#pragma once

#include <pthread.h>

#include <cstring>

#include "linker/log_assert.h"

namespace lumora::linker {

/// Releases the lock, which is not owned, at the end of its life.
class RwLockGuard {
 public:
  RwLockGuard(const RwLockGuard&) = delete;
  RwLockGuard& operator=(const RwLockGuard&) = delete;

 protected:
  RwLockGuard(pthread_rwlock_t* lock, int code, const char* function) : lock_(lock) {
    check(code, function);
  }
  ~RwLockGuard() { check(pthread_rwlock_unlock(lock_), "pthread_rwlock_unlock"); }

 private:
  static void check(int code, const char* function) {
    if (code != 0) log_assert("%s returned %s", function, std::strerror(code));
  }

  pthread_rwlock_t* lock_;
};

/// Holds a lock for reading.
class ReadLock : RwLockGuard {
 public:
  explicit ReadLock(pthread_rwlock_t* lock)
      : RwLockGuard(lock, pthread_rwlock_rdlock(lock), "pthread_rwlock_rdlock") {}
};

/// Holds a lock for writing.
class WriteLock : RwLockGuard {
 public:
  explicit WriteLock(pthread_rwlock_t* lock)
      : RwLockGuard(lock, pthread_rwlock_wrlock(lock), "pthread_rwlock_wrlock") {}
};

}  // namespace lumora::linker
