// SPDX-License-Identifier: Apache-2.0
// Finds the files of a library, opens them with libdwfl, and converts offsets to file addresses.
#include "tools/symbols/symbolizer.h"

#include <elfutils/libdwelf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <utility>

#include "tools/symbols/demangle.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

// When the file got its contents. Packages install files with an old modification time, so the time
// of the inode counts too, except for copies, which are made at any time.
std::int64_t ChangedTime(const std::string& path, bool is_copy) {
  struct stat state {};
  if (stat(path.c_str(), &state) != 0) return 0;
  return is_copy ? state.st_mtime : std::max(state.st_mtime, state.st_ctime);
}

constexpr std::string_view kDeleted = " (deleted)";
constexpr std::string_view kApkMark = "!/";

bool IsFile(const fs::path& path) {
  std::error_code ignored;
  return fs::is_regular_file(path, ignored);
}

std::string WithoutDeleted(const std::string& name) {
  return name.ends_with(kDeleted) ? name.substr(0, name.size() - kDeleted.size()) : name;
}

// `directory` with the absolute `path` below it.
fs::path Below(const std::string& directory, const fs::path& path) {
  return fs::path(directory) / path.relative_path();
}

// Called by libdwfl the first time that it needs debug information or a full symbol table.
int FindDebugFile(Dwfl_Module* module, void** user_data, const char* module_name, Dwarf_Addr base,
                  const char* file_name, const char* link, GElf_Word checksum, char** found) {
  const int file = dwfl_standard_find_debuginfo(module, user_data, module_name, base, file_name,
                                                link, checksum, found);
  if (file >= 0 || link == nullptr) return file;
  // Without a link, libdwfl searches for the library's own name, as an unstripped copy has it.
  return dwfl_standard_find_debuginfo(module, user_data, module_name, base, file_name, nullptr, 0,
                                      found);
}

// Searches each directory for the whole path, then for the file name.
std::string FindInDirectories(std::string path, const std::vector<std::string>& directories) {
  const std::size_t apk = path.find(kApkMark);
  if (apk != std::string::npos) path = path.substr(apk + 1);
  for (const std::string& directory : directories) {
    for (const fs::path& candidate :
         {Below(directory, path), directory / fs::path(path).filename()}) {
      if (IsFile(candidate)) return candidate.string();
    }
  }
  return "";
}

// The file to read for the mapping `name`; empty if there is none. Searches the sysroot, or this
// machine without one, then the symbol directories; with `dirs_first`, these come first. For
// "APK!/lib/x.so", only the symbol directories are searched, and for a deleted file not this
// machine, which may have another one there now.
std::string FindLibraryFile(const std::string& name, const SymbolOptions& options) {
  // "[vdso]" and mappings without a name have no file.
  if (!name.starts_with('/')) return "";
  std::string path = WithoutDeleted(name);
  if (options.dirs_first) {
    std::string found = FindInDirectories(path, options.symbol_dirs);
    if (!found.empty()) return found;
  }
  if (!options.sysroot.empty()) {
    const fs::path copy = Below(options.sysroot, path);
    if (IsFile(copy)) return copy.string();
  } else if (path == name && IsFile(path)) {
    return path;
  }
  return options.dirs_first ? "" : FindInDirectories(path, options.symbol_dirs);
}

std::string BuildIdOf(Elf* elf) {
  const void* bytes = nullptr;
  const ssize_t count = dwelf_elf_gnu_build_id(elf, &bytes);
  std::string text;
  for (ssize_t i = 0; i < count; ++i) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const unsigned char byte = static_cast<const unsigned char*>(bytes)[i];
    text += {kDigits[byte >> 4U], kDigits[byte & 15U]};
  }
  return text;
}

// The file that would provide symbols for `name`: its debug file if the build id is known.
std::string MissingFileHint(const std::string& name, const std::string& build_id) {
  if (build_id.size() > 2) {
    return ".build-id/" + build_id.substr(0, 2) + "/" + build_id.substr(2) + ".debug";
  }
  return WithoutDeleted(name);
}

}  // namespace

Symbolizer::Symbolizer(std::string library, const SymbolOptions& options,
                       const std::vector<std::uint64_t>& offsets, std::string build_id)
    : name_(std::move(library)),
      file_(FindLibraryFile(name_, options)),
      build_id_(std::move(build_id)) {
  for (const std::string& directory : options.symbol_dirs) {
    search_path_ += fs::absolute(directory).string() + ":";
  }
  // Then the library's directory, its subdirectory .debug, and the system's.
  search_path_ += ":.debug:/usr/lib/debug";
  search_path_start_ = search_path_.data();
  // Many systems set the variable for all programs; libdwfl would send build ids to these servers.
  if (!options.debuginfod) unsetenv("DEBUGINFOD_URLS");
  if (!file_.empty()) Open(offsets);
}

void Symbolizer::Open(const std::vector<std::uint64_t>& offsets) {
  callbacks_ = {dwfl_build_id_find_elf, FindDebugFile, dwfl_offline_section_address,
                &search_path_start_};
  session_ = dwfl_begin(&callbacks_);
  if (session_ == nullptr) return;
  dwfl_report_begin(session_);
  module_ = dwfl_report_offline(session_, file_.c_str(), file_.c_str(), -1);
  dwfl_report_end(session_, nullptr, nullptr);
  Elf* elf = module_ == nullptr ? nullptr : dwfl_module_getelf(module_, &bias_);
  if (elf == nullptr) {
    module_ = nullptr;
    return;
  }
  std::string found = BuildIdOf(elf);
  if (!build_id_.empty() && found != build_id_) {
    module_ = nullptr;  // the library was replaced since
    return;
  }
  build_id_ = std::move(found);
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
  return address ? ResolveAddress(*address) : ResolvedAddress{};
}

ResolvedAddress Symbolizer::ResolveAddress(std::uint64_t address) {
  ResolvedAddress resolved{.address = address, .symbols = {}};
  if (module_ == nullptr) return resolved;
  Load();
  if (dwarf_) resolved.symbols = dwarf_->Find(address + bias_ - dwarf_bias_);
  if (!resolved.symbols.empty() && !resolved.symbols.back().function.empty()) return resolved;
  if (const char* name = symbols_->Find(address + bias_)) {
    if (resolved.symbols.empty()) resolved.symbols.emplace_back();
    resolved.symbols.back().function = Demangle(name);
  }
  return resolved;
}

}  // namespace memleak
