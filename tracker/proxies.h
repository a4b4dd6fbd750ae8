// SPDX-License-Identifier: Apache-2.0
// The functions that replace the mapping and device calls of hooked libraries.
#pragma once

#include <string_view>

/// Returns the proxy for `key`: the name of a function that is hooked in any library, or
/// "function_library" for one that is hooked in a single library. Null if there is none. The result
/// never changes. Any thread, any context.
void* FindProxy(std::string_view key);
