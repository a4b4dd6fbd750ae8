// SPDX-License-Identifier: Apache-2.0
// The part of Android's system properties that the controller uses. fake_device.cpp defines it.
#pragma once

#define PROP_VALUE_MAX 92

extern "C" {
int __system_property_get(const char* name, char* value);
int __system_property_set(const char* name, const char* value);
}
