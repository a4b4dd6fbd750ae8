// SPDX-License-Identifier: Apache-2.0
// The root directory of a device.
#include "tools/target/device_root.h"

namespace memleak {

std::string DeviceRoot() {
  return "/";
}

}  // namespace memleak
