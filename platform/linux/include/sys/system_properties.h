// Linux stand-in for Android's system properties: the file <root>/properties, one "name=value" a
// line, where root is the directory that MEMLEAK_TRACKER_ROOT names ("/" when unset). While that
// file does not exist, the file that MEMLEAK_TRACKER_PROPERTIES names is read in its place, so that
// children with a root of their own start with their parent's settings.
#pragma once

/// Longest property value, its terminating NUL included (bionic: sys/system_properties.h).
#define PROP_VALUE_MAX 92

extern "C" {

/// Copies the current value of property `name` into `value` (PROP_VALUE_MAX bytes), NUL-terminated
/// and cut to fit. Returns the number of bytes without the NUL; 0 when the property is unset,
/// empty or unreadable, and then `value` is the empty string. The last line with the name counts;
/// nothing is trimmed but a carriage return at the line's end. Keeps errno.
/// Reads the file afresh on every call. Allocates nothing, takes no lock: safe in a signal handler.
int __system_property_get(const char* name, char* value);

}  // extern "C"
