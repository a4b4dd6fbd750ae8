// SPDX-License-Identifier: Apache-2.0
// The part of bionic's header that the tree uses.
#pragma once

#define PROP_VALUE_MAX 92

extern "C" {
int __system_property_get(const char* name, char* value);
int __system_property_set(const char* name, const char* value);
}
