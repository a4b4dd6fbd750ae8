// Where the files of a device begin. Called by site_android.cpp alone.
#pragma once

#include <string>

namespace memleak {

/// "/"; apart from what uses it, so that a device can be played in a directory.
std::string DeviceRoot();

}  // namespace memleak
