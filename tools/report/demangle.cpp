// C++ and both of Rust's manglings, through libiberty.
#include "tools/report/demangle.h"

#include <libiberty/demangle.h>

#include <cstdlib>
#include <memory>

namespace memleak {
namespace {

// Longer symbols cost the demangler more time than their names are worth.
constexpr std::size_t kLongestSymbol = 32768;

struct FreeDeleter {
  void operator()(char* memory) const { std::free(memory); }
};

}  // namespace

std::string Demangle(const std::string& symbol) {
  // Only symbols: a demangler would read a C function named "i" as the type int.
  const bool mangled = symbol.starts_with("_Z") || symbol.starts_with("_R");
  if (!mangled || symbol.size() > kLongestSymbol) return symbol;
  const std::unique_ptr<char, FreeDeleter> name(
      cplus_demangle(symbol.c_str(), DMGL_PARAMS | DMGL_ANSI | DMGL_AUTO));
  return name ? name.get() : symbol;
}

}  // namespace memleak
