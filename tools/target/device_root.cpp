// SPDX-License-Identifier: Apache-2.0
#include "tools/target/device_root.h"

namespace memleak {

std::string DeviceRoot() {
  return "/";
}

}  // namespace memleak
