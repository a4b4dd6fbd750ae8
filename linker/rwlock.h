// Guards over the C library's reader-writer lock that end the process when a lock call fails: the
// registries behind such a lock cannot be trusted any more.
//
// Used by the library index and the hook engine, on any thread. Not for signal handlers.
#pragma once

#include <pthread.h>

#include <cstring>

#include "linker/log_assert.h"

namespace lumora::linker {

/// Holds `lock` (not owned, outlives the guard) for reading while it lives.
class ReadLock {
 public:
  explicit ReadLock(pthread_rwlock_t* lock) : lock_(lock) {
    const int code = pthread_rwlock_rdlock(lock_);
    if (code != 0) log_assert("pthread_rwlock_rdlock returned %s", std::strerror(code));
  }
  ReadLock(const ReadLock&) = delete;
  ReadLock& operator=(const ReadLock&) = delete;
  ~ReadLock() {
    const int code = pthread_rwlock_unlock(lock_);
    if (code != 0) log_assert("pthread_rwlock_unlock returned %s", std::strerror(code));
  }

 private:
  pthread_rwlock_t* lock_;
};

/// Holds `lock` (not owned, outlives the guard) for writing while it lives.
class WriteLock {
 public:
  explicit WriteLock(pthread_rwlock_t* lock) : lock_(lock) {
    const int code = pthread_rwlock_wrlock(lock_);
    if (code != 0) log_assert("pthread_rwlock_wrlock returned %s", std::strerror(code));
  }
  WriteLock(const WriteLock&) = delete;
  WriteLock& operator=(const WriteLock&) = delete;
  ~WriteLock() {
    const int code = pthread_rwlock_unlock(lock_);
    if (code != 0) log_assert("pthread_rwlock_unlock returned %s", std::strerror(code));
  }

 private:
  pthread_rwlock_t* lock_;
};

}  // namespace lumora::linker
