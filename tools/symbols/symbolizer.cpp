// SPDX-License-Identifier: Apache-2.0
// Opens one library at a time with libdwfl and converts offsets in a mapping to file addresses.
#include "tools/symbols/symbolizer.h"

#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <gelf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/symbols/code_ranges.h"
#include "tools/symbols/debug_files.h"
#include "tools/symbols/demangle.h"

namespace memleak {
namespace {

// When the file got its contents. Packages install files with an old modification time, so the time
// of the inode counts too, except for copies, which are made at any time.
std::int64_t ChangedTime(const std::string& path, bool is_copy) {
  struct stat state {};
  if (stat(path.c_str(), &state) != 0) return 0;
  return is_copy ? state.st_mtime : std::max(state.st_mtime, state.st_ctime);
}

}  // namespace

/// A library and the addresses that were resolved in it.
class Symbolizer::Module {
 public:
  Module(std::string name, const SymbolOptions& options);
  ~Module() { dwfl_end(session_); }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  LibraryState State();

  void Prepare(const std::vector<std::uint64_t>& offsets) {
    if (module_ == nullptr) return;
    Elf* elf = dwfl_module_getelf(module_, &bias_);
    code_ = CodeRanges(elf, GuessPageBytes(elf, offsets));
  }

  const ResolvedAddress& Resolve(std::uint64_t offset) {
    const auto [known, added] = known_.try_emplace(offset);
    if (added && module_ != nullptr) known->second = FindSymbols(offset);
    return known->second;
  }

 private:
  void Open();
  void Load();
  std::optional<std::uint64_t> AddressOf(std::uint64_t offset) const;
  ResolvedAddress FindSymbols(std::uint64_t offset);

  std::string name_;
  std::string file_;
  DebugSearch search_;
  std::string build_id_;
  Dwfl* session_ = nullptr;
  Dwfl_Module* module_ = nullptr;
  std::vector<CodeRange> code_;
  GElf_Addr bias_ = 0;         // added to file addresses, gives those of the session
  Dwarf_Addr dwarf_bias_ = 0;  // the same for the file with the debug information
  bool loaded_ = false;
  std::optional<SymbolIndex> symbols_;
  std::optional<DwarfIndex> dwarf_;
  std::unordered_map<std::uint64_t, ResolvedAddress> known_;
};

Symbolizer::Module::Module(std::string name, const SymbolOptions& options)
    : name_(std::move(name)), file_(FindLibraryFile(name_, options)), search_(options) {
  if (!file_.empty()) Open();
}

void Symbolizer::Module::Open() {
  session_ = dwfl_begin(search_.Callbacks());
  if (session_ == nullptr) return;
  dwfl_report_begin(session_);
  module_ = dwfl_report_offline(session_, file_.c_str(), file_.c_str(), -1);
  dwfl_report_end(session_, nullptr, nullptr);
  if (module_ == nullptr) return;
  Elf* elf = dwfl_module_getelf(module_, &bias_);
  if (elf == nullptr) {
    module_ = nullptr;
    return;
  }
  build_id_ = BuildIdOf(elf);
  code_ = CodeRanges(elf, kSmallestPage);
}

// Reads the symbol tables, at the first look-up.
void Symbolizer::Module::Load() {
  if (loaded_) return;
  loaded_ = true;
  // Debug information first: this also loads the symbol table of the debug file.
  if (Dwarf* dwarf = dwfl_module_getdwarf(module_, &dwarf_bias_)) dwarf_.emplace(dwarf);
  symbols_.emplace(module_);
}

LibraryState Symbolizer::Module::State() {
  LibraryState state{.found = module_ != nullptr, .build_id = build_id_};
  if (module_ != nullptr) {
    Load();
    state.changed = ChangedTime(file_, file_ != name_);
  }
  if (!dwarf_ && name_.starts_with('/')) state.hint = MissingFileHint(name_, build_id_);
  return state;
}

// The file address of a byte in the executable mapping. A report does not tell several executable
// mappings of a library apart: the first in which the byte is part of a function counts.
std::optional<std::uint64_t> Symbolizer::Module::AddressOf(std::uint64_t offset) const {
  std::optional<std::uint64_t> first;
  for (const CodeRange& range : code_) {
    if (offset >= range.end - range.begin) continue;
    const std::uint64_t address = range.begin + offset;
    if (code_.size() == 1 || symbols_->Find(address + bias_) != nullptr) return address;
    if (!first) first = address;
  }
  return first;
}

ResolvedAddress Symbolizer::Module::FindSymbols(std::uint64_t offset) {
  Load();
  const std::optional<std::uint64_t> address = AddressOf(offset);
  if (!address) return {};
  ResolvedAddress resolved{.address = *address, .symbols = {}};
  if (dwarf_) resolved.symbols = dwarf_->Find(*address + bias_ - dwarf_bias_);
  if (!resolved.symbols.empty() && !resolved.symbols.back().function.empty()) return resolved;
  if (const char* name = symbols_->Find(*address + bias_)) {
    if (resolved.symbols.empty()) resolved.symbols.emplace_back();
    resolved.symbols.back().function = Demangle(name);
  }
  return resolved;
}

Symbolizer::Symbolizer(SymbolOptions options) : options_(std::move(options)) {
  // Many systems set the variable for all programs; libdwfl would send build ids to these servers.
  if (!options_.debuginfod) unsetenv("DEBUGINFOD_URLS");
}
Symbolizer::~Symbolizer() = default;

Symbolizer::Module& Symbolizer::ModuleOf(const std::string& library) {
  std::unique_ptr<Module>& module = modules_[library];
  if (!module) module = std::make_unique<Module>(library, options_);
  return *module;
}

const ResolvedAddress& Symbolizer::Resolve(const std::string& library, std::uint64_t offset) {
  return ModuleOf(library).Resolve(offset);
}

void Symbolizer::Prepare(const std::string& library, const std::vector<std::uint64_t>& offsets) {
  ModuleOf(library).Prepare(offsets);
}

LibraryState Symbolizer::StateOf(const std::string& library) {
  return ModuleOf(library).State();
}

void Symbolizer::Release(const std::string& library) {
  modules_.erase(library);
}

}  // namespace memleak
