// SPDX-License-Identifier: Apache-2.0
// Processes of a device: one root directory for all, system properties, and a log in logcat.
#include <sys/system_properties.h>

#include <array>
#include <sstream>

#include "protocol/protocol.h"
#include "tools/base/user_error.h"
#include "tools/target/device_root.h"
#include "tools/target/kinds.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

std::string Property(const char* name) {
  std::array<char, PROP_VALUE_MAX> value{};
  const int length = __system_property_get(name, value.data());
  return length > 0 ? std::string(value.data(), static_cast<std::size_t>(length)) : "";
}

UserError CannotSet(const std::string& name, const std::string& value) {
  return {"cannot set the system property " + name + " to \"" + value + "\"",
          "run memleak as root, or as root: setprop " + name + " '" + value + "'"};
}

}  // namespace

const std::uint32_t kDefaultDepth = protocol::kDefaultDepth;

void FindPlaces(std::string_view /*maps*/, ProcessInfo* process) {
  process->root = DeviceRoot();
  process->log = "logcat -s MemLeak.Native";
}

StoredSettings ReadSettings(const ProcessInfo& /*process*/) {
  StoredSettings settings;
  for (const char* name : {protocol::kTypeProperty, protocol::kDepthProperty,
                           protocol::kHookLibraryProperty, protocol::kHookFunctionProperty}) {
    const std::string value = Property(name);
    if (!value.empty()) settings.text += std::string(name) + "=" + value + "\n";
  }
  if (!settings.text.empty()) settings.place = "system properties";
  return settings;
}

void WriteSettings(const ProcessInfo& /*process*/, const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::string name = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    // Each property needs its own permission, so unchanged ones are not written.
    if (Property(name.c_str()) == value) continue;
    if (__system_property_set(name.c_str(), value.c_str()) != 0) {
      throw CannotSet(name, value);
    }
  }
}

const SiteAdvice& Advice() {
  static constexpr SiteAdvice kAdvice = {"pidof NAME (as root: other users see only their own)",
                                         "run it as root or as the app's user (run-as)",
                                         "with the tracker as its malloc debug library",
                                         nullptr,
                                         "take the report before the process ends",
                                         "adb pull ",
                                         "sent; for the result see: logcat -s MemLeak.Native"};
  return kAdvice;
}

}  // namespace memleak
