// SPDX-License-Identifier: Apache-2.0
// Searches of libraries and debug files.
#include "tools/symbols/debug_files.h"

#include <elfutils/libdwelf.h>

#include <filesystem>
#include <string_view>
#include <vector>

namespace memleak {
namespace {

namespace fs = std::filesystem;

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

}  // namespace

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

DebugSearch::DebugSearch(const SymbolOptions& options) {
  for (const std::string& directory : options.symbol_dirs) {
    path_ += fs::absolute(directory).string() + ":";
  }
  // Then the library's directory, its subdirectory .debug, and the system's.
  path_ += ":.debug:/usr/lib/debug";
  path_start_ = path_.data();
  callbacks_ = {dwfl_build_id_find_elf, FindDebugFile, dwfl_offline_section_address, &path_start_};
}

std::string MissingFileHint(const std::string& name, const std::string& build_id) {
  if (build_id.size() > 2) {
    return ".build-id/" + build_id.substr(0, 2) + "/" + build_id.substr(2) + ".debug";
  }
  return WithoutDeleted(name);
}

}  // namespace memleak
