// The platform's thread object on top of POSIX threads.
//
// Started by the dump thread's owner, possibly inside the control signal's handler; the loop runs
// on the new thread.
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utils/Thread.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace android {

Thread::Thread(bool /*can_call_java*/) {}

Thread::~Thread() {
  pthread_cond_destroy(&ended_);
}

status_t Thread::readyToRun() {
  return NO_ERROR;
}

status_t Thread::run(const char* name, std::int32_t priority, std::size_t stack) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (running_) return INVALID_OPERATION;
  status_ = NO_ERROR;
  exit_pending_ = false;
  std::strncpy(name_, name != nullptr ? name : "", sizeof(name_) - 1);
  priority_ = priority;
  hold_self_ = this;
  running_ = true;
  const status_t result = Start(stack);
  if (result != NO_ERROR) {
    running_ = false;
    hold_self_.clear();
  }
  return result;
}

status_t Thread::Start(std::size_t stack) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return UNKNOWN_ERROR;
  int error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error == 0 && stack != 0) {
    const auto least = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    error = pthread_attr_setstacksize(&attributes, std::max(stack, least));
  }
  if (error == 0) error = pthread_create(&thread_, &attributes, &Thread::Run, this);
  pthread_attr_destroy(&attributes);
  return error == 0 ? NO_ERROR : UNKNOWN_ERROR;
}

void* Thread::Run(void* self) {
  auto* const thread = static_cast<Thread*>(self);
  sp<Thread> strong;
  {
    // run() is done with the object once it lets this lock go.
    const std::lock_guard<std::mutex> lock(thread->mutex_);
    strong = std::move(thread->hold_self_);
  }
  const wp<Thread> weak(strong);
  strong->SetUpThread();
  bool go_on = strong->IterateFirst();
  while (strong->EndUnless(go_on)) {
    // Here the object dies, on this thread, when nobody else holds it.
    strong.clear();
    strong = weak.promote();
    if (strong == nullptr) break;
    go_on = strong->threadLoop();
  }
  return nullptr;
}

/// What the starter asked for. A name or nice value that the system refuses is no reason not to
/// run.
void Thread::SetUpThread() const {
  pthread_setname_np(pthread_self(), name_);
  if (priority_ == PRIORITY_DEFAULT) return;
  // On Linux a nice value belongs to the thread, not to the process.
  setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), priority_);
}

bool Thread::IterateFirst() {
  const status_t status = readyToRun();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
    if (status != NO_ERROR) return false;
    // An exit that was requested before the first iteration leaves none.
    if (exit_pending_) return true;
  }
  return threadLoop();
}

/// Marks the thread as ended unless it is to go on, and says whether it is.
bool Thread::EndUnless(bool go_on) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (go_on && !exit_pending_) return true;
  exit_pending_ = true;
  running_ = false;
  pthread_cond_broadcast(&ended_);
  return false;
}

void Thread::requestExit() {
  const std::lock_guard<std::mutex> lock(mutex_);
  exit_pending_ = true;
}

status_t Thread::requestExitAndWait() {
  requestExit();
  return join();
}

status_t Thread::join() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!running_) return status_;
  if (pthread_equal(thread_, pthread_self()) != 0) return WOULD_BLOCK;
  while (running_) pthread_cond_wait(&ended_, mutex_.native_handle());
  return status_;
}

bool Thread::isRunning() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

bool Thread::exitPending() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return exit_pending_;
}

}  // namespace android
