// SPDX-License-Identifier: Apache-2.0
// The system properties of a device, as far as the controller uses them; see played_device.cpp.
#pragma once

#define PROP_VALUE_MAX 92

extern "C" {
int __system_property_get(const char* name, char* value);
int __system_property_set(const char* name, const char* value);
}
