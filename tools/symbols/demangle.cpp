// SPDX-License-Identifier: Apache-2.0
// Uses libiberty: the C++ runtime's demangler has no limit for the length of a name, and does not
// know Rust.
#include "tools/symbols/demangle.h"

#include <libiberty/demangle.h>

#include <cstddef>

namespace memleak {
namespace {

// Longer symbols take the demangler too long.
constexpr std::size_t kMaxSymbolBytes = 32768;
// Substitutions can double a name at each step: 220 bytes can expand to 71 MB.
constexpr std::size_t kMaxNameBytes = 65536;

struct NameTooLong {};

// Receives a name piece by piece. The demangler owns no heap memory meanwhile, so an exception may
// leave it.
void Append(const char* piece, std::size_t length, void* name) {
  auto* text = static_cast<std::string*>(name);
  if (text->size() + length > kMaxNameBytes) throw NameTooLong();
  text->append(piece, length);
}

}  // namespace

std::string Demangle(const std::string& symbol) {
  // A demangler would take a C function named "i" for the type int.
  const bool mangled = symbol.starts_with("_Z") || symbol.starts_with("_R");
  if (!mangled || symbol.size() > kMaxSymbolBytes) return symbol;
  constexpr int kOptions = DMGL_PARAMS | DMGL_ANSI;
  try {
    std::string name;
    if (rust_demangle_callback(symbol.c_str(), kOptions, Append, &name) != 0) return name;
    name.clear();
    if (cplus_demangle_v3_callback(symbol.c_str(), kOptions, Append, &name) != 0) return name;
  } catch (const NameTooLong&) {
  }
  return symbol;
}

}  // namespace memleak
