// SPDX-License-Identifier: Apache-2.0
// The root directory of a device. Called by site_android.cpp.
#pragma once

#include <string>

namespace memleak {

/// "/". Tests replace it to simulate a device in a directory.
std::string DeviceRoot();

}  // namespace memleak
