// The root of a device.
#include "tools/device_root.h"

namespace memleak {

std::string DeviceRoot() {
  return "/";
}

}  // namespace memleak
