// All locks are free in a child.
#include "platform/fork_policy.h"

namespace platform {

bool ForkedChildFreesLocks() {
  return true;
}

}  // namespace platform
