// SPDX-License-Identifier: Apache-2.0
// Demangling of symbol names. Any thread.
#pragma once

#include <string>

namespace memleak {

/// The readable form of a C++ or Rust symbol, without Rust's hash. Other names, malformed symbols
/// and symbols or names above a length limit are returned unchanged.
std::string Demangle(const std::string& symbol);

}  // namespace memleak
