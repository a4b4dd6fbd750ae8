// SPDX-License-Identifier: Apache-2.0
// The variables by which the tracker finds the loader.
#pragma once

/// Declares such a variable. Protected: another copy of the loader may be loaded, too, and each
/// copy uses its own variables.
#define MEMLEAK_VARIABLE extern "C" __attribute__((visibility("protected")))
