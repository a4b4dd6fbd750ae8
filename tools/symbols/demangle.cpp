// C++ and both of Rust's manglings, through libiberty.
#include "tools/symbols/demangle.h"

#include <libiberty/demangle.h>

#include <cstddef>

namespace memleak {
namespace {

// Longer symbols cost the demangler more time than their names are worth.
constexpr std::size_t kLongestSymbol = 32768;
// Substitutions can double a name at each of a symbol's steps: 220 bytes may stand for 71 MB.
constexpr std::size_t kLongestName = 65536;

struct NameTooLong {};

// The demangler's way to hand out a name, piece by piece. It keeps nothing on the heap meanwhile,
// so an exception may end it.
void Append(const char* piece, std::size_t length, void* name) {
  auto* text = static_cast<std::string*>(name);
  if (text->size() + length > kLongestName) throw NameTooLong();
  text->append(piece, length);
}

}  // namespace

std::string Demangle(const std::string& symbol) {
  // Only symbols: a demangler would read a C function named "i" as the type int.
  const bool mangled = symbol.starts_with("_Z") || symbol.starts_with("_R");
  if (!mangled || symbol.size() > kLongestSymbol) return symbol;
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
