// glibc's keys: the first 32 lie in the thread itself.
#include "platform/thread_keys.h"

namespace platform {

bool ThreadKeyNeverAllocates(pthread_key_t key) {
  // glibc: PTHREAD_KEY_2NDLEVEL_SIZE.
  constexpr pthread_key_t kKeysInThread = 32;
  return key < kKeysInThread;
}

}  // namespace platform
