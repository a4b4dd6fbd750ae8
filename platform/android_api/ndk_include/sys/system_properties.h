// SPDX-License-Identifier: Apache-2.0
// Replacement for bionic's system properties, for Linux: the file <root>/properties with a
// "name=value" pair on each line. <root> is the value of MEMLEAK_TRACKER_ROOT, "/" if it is unset.
//
// If that file does not exist, the file that MEMLEAK_TRACKER_PROPERTIES names is read instead, so
// that children with a separate root start with their parent's settings.
#pragma once

/// The size of the longest value, with its NUL (bionic: sys/system_properties.h).
#define PROP_VALUE_MAX 92

extern "C" {

/// Copies the current value of property `name` into `value` (PROP_VALUE_MAX bytes), NUL-terminated
/// and cut to fit. Returns the length of the value. Returns 0 and an empty string if the property
/// is unset, empty or unreadable.
///
/// The last line with the name counts. Only a carriage return at the end of a line is trimmed.
/// Reads the file on every call. Keeps errno. Any thread. Async-signal-safe: allocates nothing and
/// takes no lock.
int __system_property_get(const char* name, char* value);

}  // extern "C"
