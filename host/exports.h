// SPDX-License-Identifier: Apache-2.0
// Attributes of the loader's exported functions and variables. All other symbols are hidden.
#pragma once

/// An exported function with C++ linkage.
#define MEMLEAK_CXX_EXPORT __attribute__((visibility("default")))
/// An exported function with C linkage.
#define MEMLEAK_EXPORT extern "C" MEMLEAK_CXX_EXPORT
/// Declares an exported variable, which the tracker looks up by name. Protected, so that each
/// loaded copy of the loader uses its own variables.
#define MEMLEAK_VARIABLE extern "C" __attribute__((visibility("protected")))
