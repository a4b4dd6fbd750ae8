// SPDX-License-Identifier: Apache-2.0
// Opens a library with libdwfl and converts offsets in a mapping to file addresses.
#include "tools/symbols/symbolizer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

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

Symbolizer::Symbolizer(std::string library, const SymbolOptions& options,
                       const std::vector<std::uint64_t>& offsets)
    : name_(std::move(library)), file_(FindLibraryFile(name_, options)), search_(options) {
  // Many systems set the variable for all programs; libdwfl would send build ids to these servers.
  if (!options.debuginfod) unsetenv("DEBUGINFOD_URLS");
  if (!file_.empty()) Open(offsets);
}

void Symbolizer::Open(const std::vector<std::uint64_t>& offsets) {
  session_ = dwfl_begin(search_.Callbacks());
  if (session_ == nullptr) return;
  dwfl_report_begin(session_);
  module_ = dwfl_report_offline(session_, file_.c_str(), file_.c_str(), -1);
  dwfl_report_end(session_, nullptr, nullptr);
  Elf* elf = module_ == nullptr ? nullptr : dwfl_module_getelf(module_, &bias_);
  if (elf == nullptr) {
    module_ = nullptr;
    return;
  }
  build_id_ = BuildIdOf(elf);
  code_ = CodeRanges(elf, GuessPageBytes(elf, offsets));
}

// Reads the symbol tables, at the first look-up.
void Symbolizer::Load() {
  if (symbols_) return;
  // Debug information first: this also loads the symbol table of the debug file.
  if (Dwarf* dwarf = dwfl_module_getdwarf(module_, &dwarf_bias_)) dwarf_.emplace(dwarf);
  symbols_.emplace(module_);
}

LibraryState Symbolizer::State() {
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
std::optional<std::uint64_t> Symbolizer::AddressOf(std::uint64_t offset) const {
  std::optional<std::uint64_t> first;
  for (const CodeRange& range : code_) {
    if (offset >= range.end - range.begin) continue;
    const std::uint64_t address = range.begin + offset;
    if (code_.size() == 1 || symbols_->Find(address + bias_) != nullptr) return address;
    if (!first) first = address;
  }
  return first;
}

ResolvedAddress Symbolizer::Resolve(std::uint64_t offset) {
  if (module_ == nullptr) return {};
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

}  // namespace memleak
