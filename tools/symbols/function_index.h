// The functions of one library by address, from its symbol tables and from its DWARF, so that
// looking one up does not read the file again. Called by the symbolizer; single-threaded.
#pragma once

#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace memleak {

/// One function at an address; several where calls were inlined.
struct SourceFrame {
  std::string function;    ///< demangled; empty when no symbol covers the address
  std::string file;        ///< empty without line information
  std::uint32_t line = 0;  ///< 0 without line information
};

/// What is known of one address, innermost inlined function first; empty when nothing is.
using Symbols = std::vector<SourceFrame>;

/// The function symbols of a module, of all tables that it has.
class SymbolIndex {
 public:
  /// Reads the tables of `module`, which has to outlive the index.
  explicit SymbolIndex(Dwfl_Module* module);

  /// The symbol that covers `address` (as the module's session counts); null when none does.
  const char* Find(GElf_Addr address) const;

 private:
  struct Entry {
    GElf_Addr begin = 0;
    GElf_Addr end = 0;  // begin for symbols without a size
    const char* name = nullptr;
    int rank = 0;  // of several at one address the highest is taken
  };
  std::vector<Entry> entries_;  // by begin, then rank
};

/// The functions of a file with DWARF, inlined calls and lines included. Units are looked into when
/// an address in them is asked for.
class DwarfIndex {
 public:
  /// Reads which unit covers which addresses; `dwarf` has to outlive the index.
  explicit DwarfIndex(Dwarf* dwarf);

  /// Functions around `address` (as the file counts), innermost first, each with the place where it
  /// was left. Without a function but with a line, one frame without a name.
  Symbols Find(Dwarf_Addr address);

 private:
  struct Range {
    Dwarf_Addr begin = 0;
    Dwarf_Addr end = 0;
    std::uint32_t item = 0;
  };
  struct Unit {
    Dwarf_Die die{};
    bool indexed = false;
    std::vector<Dwarf_Die> functions;
    std::vector<Range> ranges;  // of functions
  };

  static void Sort(std::vector<Range>* ranges);
  static const Range* Covering(const std::vector<Range>& ranges, Dwarf_Addr address);
  static void AddRanges(Dwarf_Die* die, std::size_t item, std::vector<Range>* ranges);
  void IndexFunctions(Dwarf_Die* parent, int depth, Unit* unit);
  void IndexUnit(Unit* unit);
  const std::string& NameOf(Dwarf_Die* die);

  std::vector<Unit> units_;
  std::vector<Range> ranges_;                 // of units
  std::map<const void*, std::string> names_;  // by where the entry lies in the file
};

}  // namespace memleak
