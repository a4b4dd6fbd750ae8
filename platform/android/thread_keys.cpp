// bionic's keys: all of them lie in the thread itself.
#include "platform/thread_keys.h"

namespace platform {

bool ThreadKeyNeverAllocates(pthread_key_t /*key*/) {
  return true;
}

}  // namespace platform
