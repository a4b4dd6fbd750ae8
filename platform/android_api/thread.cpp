// SPDX-License-Identifier: Apache-2.0
// Replacement for libutils' thread object, by POSIX threads.
//
// The control signal's handler starts the dump thread, so run() may be called in a signal handler
// on a thread that holds no lock of the allocator.
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utils/Thread.h>

#include <algorithm>
#include <cstring>

namespace android {

status_t Thread::run(const char* name, std::int32_t priority, std::size_t stack) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (running_) return INVALID_OPERATION;
  std::strncpy(name_, name != nullptr ? name : "", sizeof(name_) - 1);
  priority_ = priority;
  running_ = true;
  incStrong(this);  // the thread's own reference
  const status_t result = Start(stack);
  if (result != NO_ERROR) {
    running_ = false;
    decStrong(this);
  }
  return result;
}

status_t Thread::Start(std::size_t stack) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return UNKNOWN_ERROR;
  int error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error == 0 && stack != 0) {
    const auto minimum = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    error = pthread_attr_setstacksize(&attributes, std::max(stack, minimum));
  }
  pthread_t thread{};
  if (error == 0) error = pthread_create(&thread, &attributes, &Thread::Run, this);
  pthread_attr_destroy(&attributes);
  return error == 0 ? NO_ERROR : UNKNOWN_ERROR;
}

void* Thread::Run(void* self) {
  auto* const thread = static_cast<Thread*>(self);
  thread->SetUpThread();
  // If only the thread's own reference is left, no other thread can add one.
  while (thread->threadLoop() && thread->getStrongCount() > 1) {
  }
  {
    const std::lock_guard<std::mutex> lock(thread->mutex_);
    thread->running_ = false;
  }
  thread->decStrong(self);
  return nullptr;
}

/// Sets name and priority. The thread runs even if the system refuses them.
void Thread::SetUpThread() const {
  pthread_setname_np(pthread_self(), name_);
  if (priority_ == PRIORITY_DEFAULT) return;
  // On Linux a nice value belongs to the thread, not to the process.
  setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), priority_);
}

}  // namespace android
