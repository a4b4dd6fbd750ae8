// Which program counters can name code on a device. Any thread, any context.
#include "platform/pc_policy.h"

namespace platform {

PcWidth AcceptedPcWidth() {
  return kAndroidPcWidth;
}

}  // namespace platform
