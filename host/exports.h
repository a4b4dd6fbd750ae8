// SPDX-License-Identifier: Apache-2.0
// What the loader exports. Everything else in it is hidden.
#pragma once

/// A function with C++ linkage: programs and libraries find it by its name.
#define MEMLEAK_CXX_EXPORT __attribute__((visibility("default")))
/// A function with C linkage.
#define MEMLEAK_EXPORT extern "C" MEMLEAK_CXX_EXPORT
/// Declares a variable by which the tracker finds the loader. Protected: another copy of the loader
/// may be loaded, too, and each copy uses its own variables.
#define MEMLEAK_VARIABLE extern "C" __attribute__((visibility("protected")))
