// SPDX-License-Identifier: Apache-2.0
// The functions of a library by address, from its symbol tables and its DWARF. Single-threaded.
#pragma once

#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace memleak {

/// A function at an address; inlined calls have one each.
struct SourceFrame {
  std::string function;    ///< demangled; empty if no symbol covers the address
  std::string file;        ///< empty without line information
  std::uint32_t line = 0;  ///< 0 without line information
};

/// The functions at an address, innermost inlined one first; empty if unknown.
using Symbols = std::vector<SourceFrame>;

/// The function symbols in all tables of a module.
class SymbolIndex {
 public:
  /// Reads the tables of `module`, which must outlive the index.
  explicit SymbolIndex(Dwfl_Module* module);

  /// The symbol that covers `address`, an address in the module's session; null if there is none.
  const char* Find(GElf_Addr address) const;

 private:
  struct Entry {
    GElf_Addr begin = 0;
    GElf_Addr end = 0;  // begin for symbols without a size
    const char* name = nullptr;
    int rank = 0;  // the highest of several at one address counts
  };
  std::vector<Entry> entries_;  // by begin, then rank
};

/// The functions in a file with DWARF, with inlined calls and lines. Reads each compilation unit at
/// the first look-up in it.
class DwarfIndex {
 public:
  /// Reads the address ranges of all units; `dwarf` must outlive the index.
  explicit DwarfIndex(Dwarf* dwarf);

  /// The functions at `address`, an address in the file, innermost first, each with the line of the
  /// call or of `address`. If only a line is known, one frame without a name.
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
  std::map<const void*, std::string> names_;  // by the address of the entry
};

}  // namespace memleak
