// Symbols through libdw: DWARF first (own or separate), symbol tables where there is none.
#include "tools/symbolizer.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <gelf.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <utility>

namespace memleak {
namespace {

struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
using ScopeArray = std::unique_ptr<Dwarf_Die, FreeDeleter>;

const char* LinkageName(Dwarf_Die* die) {
  Dwarf_Attribute attribute;
  if (dwarf_attr_integrate(die, DW_AT_linkage_name, &attribute) != nullptr ||
      dwarf_attr_integrate(die, DW_AT_MIPS_linkage_name, &attribute) != nullptr) {
    return dwarf_formstring(&attribute);
  }
  return nullptr;
}

std::string FunctionName(Dwarf_Die* die) {
  if (const char* linkage = LinkageName(die)) return Demangle(linkage);
  const char* name = dwarf_diename(die);
  return name == nullptr ? "" : name;
}

// Where an inlined call stands in its caller.
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
  caller->line = static_cast<int>(line);
}

// Functions around `address`, innermost first, each with the place where it was left.
Symbols FromScopes(Dwarf_Die* unit, Dwarf_Addr address) {
  Symbols symbols;
  SourceFrame frame;
  if (Dwarf_Line* line = dwarf_getsrc_die(unit, address)) {
    if (const char* file = dwarf_linesrc(line, nullptr, nullptr)) frame.file = file;
    dwarf_lineno(line, &frame.line);
  }
  Dwarf_Die* found = nullptr;
  const int inner = dwarf_getscopes(unit, address, &found);
  const ScopeArray inner_scopes(found);
  if (inner <= 0) return symbols;
  // The first call follows an inlined function into its definition; its callers are found from
  // where it stands.
  Dwarf_Die* around = nullptr;
  const int count = dwarf_getscopes_die(inner_scopes.get(), &around);
  const ScopeArray scopes(around);
  for (int i = 0; i < count; ++i) {
    Dwarf_Die* die = scopes.get() + i;
    const int tag = dwarf_tag(die);
    if (tag != DW_TAG_subprogram && tag != DW_TAG_inlined_subroutine) continue;
    frame.function = FunctionName(die);
    symbols.push_back(std::exchange(frame, {}));
    if (tag == DW_TAG_subprogram) break;
    ReadCallSite(unit, die, &frame);
  }
  return symbols;
}

}  // namespace

/// One file and what has been resolved in it.
class Symbolizer::Module {
 public:
  explicit Module(const std::string& path);
  ~Module() { dwfl_end(session_); }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  bool IsOpen() const { return module_ != nullptr; }

  const Symbols& Resolve(std::uint64_t offset) {
    const auto known = known_.find(offset);
    if (known != known_.end()) return known->second;
    return known_.emplace(offset, Look(offset)).first->second;
  }

 private:
  Symbols Look(std::uint64_t offset);
  std::optional<std::uint64_t> AddressOf(std::uint64_t offset) const;
  Dwarf_Die* UnitOf(Dwarf_Addr address, Dwarf_Addr* bias);

  Dwfl* session_ = nullptr;
  Dwfl_Module* module_ = nullptr;
  std::map<std::uint64_t, Symbols> known_;
};

Symbolizer::Module::Module(const std::string& path) {
  // libdw keeps the pointer; it searches beside the file and below /usr/lib/debug by default.
  static char* default_debug_path = nullptr;
  static const Dwfl_Callbacks callbacks = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo,
                                           dwfl_offline_section_address, &default_debug_path};
  std::error_code ignored;
  // Pseudo-names such as "[vdso]" and nameless mappings have no file; devices must not be opened.
  if (!path.starts_with('/') || !std::filesystem::is_regular_file(path, ignored)) return;
  session_ = dwfl_begin(&callbacks);
  if (session_ == nullptr) return;
  dwfl_report_begin(session_);
  module_ = dwfl_report_offline(session_, path.c_str(), path.c_str(), -1);
  dwfl_report_end(session_, nullptr, nullptr);
}

// The address, as this session counts, of a byte of the executable mapping.
std::optional<std::uint64_t> Symbolizer::Module::AddressOf(std::uint64_t offset) const {
  GElf_Addr bias = 0;
  Elf* elf = dwfl_module_getelf(module_, &bias);
  std::size_t count = 0;
  if (elf == nullptr || elf_getphdrnum(elf, &count) != 0) return std::nullopt;
  for (std::size_t i = 0; i < count; ++i) {
    GElf_Phdr segment;
    if (gelf_getphdr(elf, static_cast<int>(i), &segment) == nullptr) continue;
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
    // Of several executable segments, the first that is long enough is taken.
    const std::uint64_t address = FileAddress(offset, segment.p_vaddr);
    if (address < segment.p_vaddr + segment.p_memsz) return address + bias;
  }
  return std::nullopt;
}

Dwarf_Die* Symbolizer::Module::UnitOf(Dwarf_Addr address, Dwarf_Addr* bias) {
  if (Dwarf_Die* unit = dwfl_module_addrdie(module_, address, bias)) return unit;
  // Compilers may leave out the table of address ranges that this lookup uses.
  for (Dwarf_Die* unit = dwfl_module_nextcu(module_, nullptr, bias); unit != nullptr;
       unit = dwfl_module_nextcu(module_, unit, bias)) {
    if (dwarf_haspc(unit, address - *bias) > 0) return unit;
  }
  return nullptr;
}

Symbols Symbolizer::Module::Look(std::uint64_t offset) {
  if (module_ == nullptr) return {};
  const std::optional<std::uint64_t> address = AddressOf(offset);
  if (!address) return {};
  Dwarf_Addr bias = 0;
  if (Dwarf_Die* unit = UnitOf(*address, &bias)) {
    Symbols symbols = FromScopes(unit, *address - bias);
    if (!symbols.empty() && !symbols.front().function.empty()) return symbols;
  }
  GElf_Off distance = 0;
  GElf_Sym symbol;
  const char* name =
      dwfl_module_addrinfo(module_, *address, &distance, &symbol, nullptr, nullptr, nullptr);
  if (name == nullptr || *name == '\0') return {};
  return {SourceFrame{Demangle(name), "", 0}};
}

std::string Demangle(const std::string& symbol) {
  // Only symbols: the demangler would read a C function named "i" as the type int.
  if (!symbol.starts_with("_Z")) return symbol;
  int status = 0;
  const std::unique_ptr<char, FreeDeleter> name(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status));
  return status == 0 && name ? name.get() : symbol;
}

Symbolizer::Symbolizer() = default;
Symbolizer::~Symbolizer() = default;

const Symbols& Symbolizer::Resolve(const std::string& library, std::uint64_t offset) {
  std::unique_ptr<Module>& module = modules_[library];
  if (!module) module = std::make_unique<Module>(library);
  return module->Resolve(offset);
}

std::vector<std::string> Symbolizer::MissingFiles() const {
  std::vector<std::string> missing;
  for (const auto& [path, module] : modules_) {
    if (path.starts_with('/') && !module->IsOpen()) missing.push_back(path);
  }
  return missing;
}

}  // namespace memleak
