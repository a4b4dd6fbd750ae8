// Symbol names as their languages write them. Called by the symbolizer and the model;
// single-threaded.
#pragma once

#include <string>

namespace memleak {

/// The readable form of a C++ or Rust symbol, without the hash of Rust's. Other names, and symbols
/// that cannot be read or are of absurd length, are returned as they are.
std::string Demangle(const std::string& symbol);

}  // namespace memleak
