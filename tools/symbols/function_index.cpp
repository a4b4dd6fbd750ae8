// SPDX-License-Identifier: Apache-2.0
// Keeps its own tables: libdw's look-ups by address walk all symbols of a library and all entries
// of a unit on every call.
#include "tools/symbols/function_index.h"

#include <dwarf.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "tools/symbols/demangle.h"

namespace memleak {
namespace {

// Real programs nest less; a damaged file must not exhaust the stack.
constexpr int kDeepestScope = 256;

const char* LinkageName(Dwarf_Die* die) {
  Dwarf_Attribute attribute;
  if (dwarf_attr_integrate(die, DW_AT_linkage_name, &attribute) != nullptr ||
      dwarf_attr_integrate(die, DW_AT_MIPS_linkage_name, &attribute) != nullptr) {
    return dwarf_formstring(&attribute);
  }
  return nullptr;
}

// Sets the line of an inlined call in its caller.
void ReadCallSite(Dwarf_Die* unit, Dwarf_Die* inlined, SourceFrame* caller) {
  Dwarf_Attribute attribute;
  Dwarf_Word file = 0;
  Dwarf_Word line = 0;
  if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_file, &attribute), &file) != 0 ||
      dwarf_formudata(dwarf_attr(inlined, DW_AT_call_line, &attribute), &line) != 0) {
    return;
  }
  Dwarf_Files* files = nullptr;
  if (dwarf_getsrcfiles(unit, &files, nullptr) != 0) return;
  if (const char* name = dwarf_filesrc(files, file, nullptr, nullptr)) caller->file = name;
  caller->line = static_cast<std::uint32_t>(line);
}

// The line of `address` itself.
SourceFrame ReadLine(Dwarf_Die* unit, Dwarf_Addr address) {
  SourceFrame frame;
  if (Dwarf_Line* line = dwarf_getsrc_die(unit, address)) {
    int number = 0;
    if (const char* file = dwarf_linesrc(line, nullptr, nullptr)) frame.file = file;
    if (dwarf_lineno(line, &number) == 0 && number > 0) {
      frame.line = static_cast<std::uint32_t>(number);
    }
  }
  return frame;
}

bool HoldsFunctions(int tag) {
  return tag == DW_TAG_namespace || tag == DW_TAG_module || tag == DW_TAG_class_type ||
         tag == DW_TAG_structure_type || tag == DW_TAG_union_type;
}

// Appends the inlined calls below `die` that cover `address`, outermost first.
void CollectInlined(Dwarf_Die* die, Dwarf_Addr address, int depth, std::vector<Dwarf_Die>* calls) {
  Dwarf_Die child;
  if (depth > kDeepestScope || dwarf_child(die, &child) != 0) return;
  do {
    const int tag = dwarf_tag(&child);
    const bool call = tag == DW_TAG_inlined_subroutine;
    if (!call && tag != DW_TAG_lexical_block && tag != DW_TAG_try_block &&
        tag != DW_TAG_catch_block) {
      continue;
    }
    if (dwarf_haspc(&child, address) <= 0) continue;
    if (call) calls->push_back(child);
    return CollectInlined(&child, address, depth + 1, calls);
  } while (dwarf_siblingof(&child, &child) == 0);
}

// The mapping symbols of Arm ("$x") mark code and data.
bool IsFunctionSymbol(const GElf_Sym& symbol, const char* name) {
  if (name == nullptr || *name == '\0' || *name == '$' || symbol.st_shndx == SHN_UNDEF) {
    return false;
  }
  const int type = GELF_ST_TYPE(symbol.st_info);
  return type == STT_FUNC || type == STT_GNU_IFUNC || type == STT_NOTYPE;
}

}  // namespace

SymbolIndex::SymbolIndex(Dwfl_Module* module) {
  const int count = dwfl_module_getsymtab(module);
  for (int i = 1; i < count; ++i) {
    GElf_Sym symbol;
    GElf_Addr address = 0;
    const char* name =
        dwfl_module_getsym_info(module, i, &symbol, &address, nullptr, nullptr, nullptr);
    if (!IsFunctionSymbol(symbol, name)) continue;
    const int rank = (symbol.st_size != 0 ? 4 : 0) +
                     (GELF_ST_TYPE(symbol.st_info) == STT_NOTYPE ? 0 : 2) +
                     (GELF_ST_BIND(symbol.st_info) == STB_LOCAL ? 0 : 1);
    entries_.push_back({address, address + symbol.st_size, name, rank});
  }
  std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
    return std::pair(a.begin, a.rank) < std::pair(b.begin, b.rank);
  });
}

const char* SymbolIndex::Find(GElf_Addr address) const {
  const auto after =
      std::upper_bound(entries_.begin(), entries_.end(), address,
                       [](GElf_Addr value, const Entry& entry) { return value < entry.begin; });
  // Labels inside a function come after its entry.
  constexpr int kEntriesBack = 16;
  auto entry = after;
  for (int i = 0; i < kEntriesBack && entry != entries_.begin(); ++i) {
    --entry;
    if (address < entry->end) return entry->name;
  }
  // Symbols of assembly code have no size: they extend to the next symbol.
  if (after == entries_.begin()) return nullptr;
  entry = std::prev(after);
  return entry->begin == entry->end ? entry->name : nullptr;
}

DwarfIndex::DwarfIndex(Dwarf* dwarf) {
  Dwarf_CU* unit = nullptr;
  Dwarf_Die die;
  Dwarf_Die split;
  std::uint8_t type = 0;
  while (dwarf_get_units(dwarf, unit, &unit, nullptr, &type, &die, &split) == 0) {
    if (dwarf_tag(&die) != DW_TAG_compile_unit && dwarf_tag(&die) != DW_TAG_skeleton_unit) continue;
    Unit& added = units_.emplace_back();
    added.die = type == DW_UT_skeleton && split.addr != nullptr ? split : die;
    const std::size_t before = ranges_.size();
    AddRanges(&die, units_.size() - 1, &ranges_);
    if (ranges_.size() != before) continue;
    // A unit without ranges: use those of its functions.
    IndexUnit(&added);
    for (Range range : added.ranges) {
      range.item = static_cast<std::uint32_t>(units_.size() - 1);
      ranges_.push_back(range);
    }
  }
  Sort(&ranges_);
}

void DwarfIndex::AddRanges(Dwarf_Die* die, std::size_t item, std::vector<Range>* ranges) {
  Dwarf_Addr base = 0;
  Dwarf_Addr begin = 0;
  Dwarf_Addr end = 0;
  for (std::ptrdiff_t next = 0; (next = dwarf_ranges(die, next, &base, &begin, &end)) > 0;) {
    // Functions that the linker removed have address 0.
    if (begin < end && begin != 0)
      ranges->push_back({begin, end, static_cast<std::uint32_t>(item)});
  }
}

void DwarfIndex::Sort(std::vector<Range>* ranges) {
  std::sort(ranges->begin(), ranges->end(),
            [](const Range& a, const Range& b) { return a.begin < b.begin; });
}

const DwarfIndex::Range* DwarfIndex::Covering(const std::vector<Range>& ranges,
                                              Dwarf_Addr address) {
  const auto after =
      std::upper_bound(ranges.begin(), ranges.end(), address,
                       [](Dwarf_Addr value, const Range& range) { return value < range.begin; });
  // Ranges do not overlap, except in damaged files.
  if (after == ranges.begin() || address >= std::prev(after)->end) return nullptr;
  return &*std::prev(after);
}

void DwarfIndex::IndexFunctions(Dwarf_Die* parent, int depth, Unit* unit) {
  Dwarf_Die child;
  if (depth > kDeepestScope || dwarf_child(parent, &child) != 0) return;
  do {
    const int tag = dwarf_tag(&child);
    if (tag == DW_TAG_subprogram) {
      const std::size_t before = unit->ranges.size();
      AddRanges(&child, unit->functions.size(), &unit->ranges);
      if (unit->ranges.size() != before) unit->functions.push_back(child);
    } else if (HoldsFunctions(tag)) {
      IndexFunctions(&child, depth + 1, unit);
    }
  } while (dwarf_siblingof(&child, &child) == 0);
}

void DwarfIndex::IndexUnit(Unit* unit) {
  if (unit->indexed) return;
  unit->indexed = true;
  IndexFunctions(&unit->die, 0, unit);
  Sort(&unit->ranges);
}

const std::string& DwarfIndex::NameOf(Dwarf_Die* die) {
  const auto [entry, added] = names_.try_emplace(die->addr);
  if (added) {
    if (const char* linkage = LinkageName(die)) {
      entry->second = Demangle(linkage);
    } else if (const char* name = dwarf_diename(die)) {
      entry->second = name;
    }
  }
  return entry->second;
}

Symbols DwarfIndex::Find(Dwarf_Addr address) {
  const Range* range = Covering(ranges_, address);
  if (range == nullptr) return {};
  Unit& unit = units_[range->item];
  IndexUnit(&unit);
  Symbols symbols;
  SourceFrame frame = ReadLine(&unit.die, address);
  const Range* function = Covering(unit.ranges, address);
  if (function == nullptr) {
    if (frame.line != 0) symbols.push_back(std::move(frame));
    return symbols;
  }
  std::vector<Dwarf_Die> scopes = {unit.functions[function->item]};
  CollectInlined(&scopes[0], address, 0, &scopes);
  // The line of a caller is that of the inlined call.
  for (std::size_t i = scopes.size(); i-- > 0;) {
    frame.function = NameOf(&scopes[i]);
    symbols.push_back(std::exchange(frame, {}));
    if (i != 0) ReadCallSite(&unit.die, &scopes[i], &frame);
  }
  return symbols;
}

}  // namespace memleak
