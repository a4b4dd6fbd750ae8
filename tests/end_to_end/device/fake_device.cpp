// SPDX-License-Identifier: Apache-2.0
// A simulated device: the directory that MEMLEAK_TRACKER_ROOT names is its root and contains its
// properties. Setting a property fails if a file "refused" exists there. Linked into the controller
// for devices.
#include <sys/system_properties.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/target/device_root.h"
#include "tools/target/root_directory.h"

namespace {

std::string Properties() {
  const std::string path = memleak::JoinPath(memleak::DeviceRoot(), protocol::kPropertiesFile);
  return memleak::ReadTextFile(path).value_or("");
}

}  // namespace

std::string memleak::DeviceRoot() {
  const char* root = std::getenv(protocol::kRootVariable);
  return root != nullptr ? root : "";
}

extern "C" int __system_property_get(const char* name, char* value) {
  value[0] = '\0';
  std::istringstream lines(Properties());
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(std::string(name) + "=")) continue;
    value[line.copy(value, PROP_VALUE_MAX - 1, std::strlen(name) + 1)] = '\0';
  }
  return static_cast<int>(std::strlen(value));
}

extern "C" int __system_property_set(const char* name, const char* value) {
  const std::string root = memleak::DeviceRoot();
  if (memleak::IsPlainFile(memleak::JoinPath(root, "refused"))) return -1;
  memleak::WriteProperties(root, memleak::WithProperty(Properties(), name, value));
  return 0;
}
