// Which program counters can name code on Linux. Any thread, any context.
#include "platform/pc_policy.h"

namespace platform {

PcWidth AcceptedPcWidth() {
  return kLinuxPcWidth;
}

}  // namespace platform
