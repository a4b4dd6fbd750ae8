// Locks stay as they were at the fork.
#include "platform/fork_policy.h"

namespace platform {

bool ForkedChildFreesLocks() {
  return false;
}

}  // namespace platform
