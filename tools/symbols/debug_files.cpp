// The search for libraries and debug files.
#include "tools/symbols/debug_files.h"

#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace memleak {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kDeleted = " (deleted)";
constexpr std::string_view kApkMark = "!/";
constexpr const char* kSystemDebugDir = "/usr/lib/debug";

// Devices and directories must not be opened.
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

std::optional<std::uint32_t> ChecksumOf(int file) {
  std::array<unsigned char, 65536> buffer{};
  uLong checksum = crc32(0, nullptr, 0);
  for (off_t position = 0;;) {
    const ssize_t bytes = pread(file, buffer.data(), buffer.size(), position);
    if (bytes < 0) return std::nullopt;
    if (bytes == 0) return static_cast<std::uint32_t>(checksum);
    checksum = crc32(checksum, buffer.data(), static_cast<uInt>(bytes));
    position += bytes;
  }
}

bool HasDebugInformation(Elf* elf) {
  std::size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return false;
  for (Elf_Scn* section = elf_nextscn(elf, nullptr); section != nullptr;
       section = elf_nextscn(elf, section)) {
    GElf_Shdr header;
    if (gelf_getshdr(section, &header) == nullptr || header.sh_type == SHT_NOBITS) continue;
    const char* name = elf_strptr(elf, names, header.sh_name);
    if (name == nullptr) continue;
    if (std::string_view(name) == ".debug_info" || std::string_view(name) == ".zdebug_info" ||
        header.sh_type == SHT_SYMTAB) {
      return true;
    }
  }
  return false;
}

/// What a candidate has to match.
struct Wanted {
  std::string build_id;
  std::string link;  // file name of the debug link, or empty
  GElf_Word checksum = 0;
};

// Whether the open file is the debug file of the same build. Without build ids the checksum of the
// debug link decides; a file found by its path alone is trusted.
bool Matches(int file, const Wanted& wanted, bool by_link) {
  Elf* elf = elf_begin(file, ELF_C_READ_MMAP, nullptr);
  if (elf == nullptr) return false;
  const std::string build_id = BuildIdOf(elf);
  bool matches = HasDebugInformation(elf);
  if (!wanted.build_id.empty() || !build_id.empty()) {
    matches = matches && build_id == wanted.build_id;
  } else if (by_link) {
    matches = matches && ChecksumOf(file) == wanted.checksum;
  }
  elf_end(elf);
  return matches;
}

int OpenMatching(const fs::path& path, const Wanted& wanted, bool by_link) {
  if (!IsFile(path)) return -1;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file >= 0 && Matches(file, wanted, by_link)) return file;
  if (file >= 0) close(file);
  return -1;
}

fs::path BuildIdPath(const std::string& build_id) {
  return fs::path(".build-id") / build_id.substr(0, 2) / (build_id.substr(2) + ".debug");
}

struct Candidate {
  fs::path path;
  bool by_link = false;
};

// In the order in which they are tried.
std::vector<Candidate> Candidates(const std::string& name, const fs::path& file,
                                  const Wanted& wanted, const SymbolOptions& options) {
  std::vector<std::string> directories = options.symbol_dirs;
  directories.emplace_back(kSystemDebugDir);
  std::vector<Candidate> candidates;
  if (wanted.build_id.size() > 2) {
    for (const std::string& directory : directories) {
      candidates.push_back({directory / BuildIdPath(wanted.build_id)});
    }
  }
  const fs::path original = WithoutDeleted(name);
  if (!wanted.link.empty()) {
    // The link is a bare name; one with directories in it could lead anywhere.
    const fs::path link = fs::path(wanted.link).filename();
    candidates.push_back({file.parent_path() / link, true});
    candidates.push_back({file.parent_path() / ".debug" / link, true});
    for (const std::string& directory : directories) {
      candidates.push_back({Below(directory, original.parent_path()) / link, true});
      candidates.push_back({directory / link, true});
    }
  }
  for (const std::string& directory : options.symbol_dirs) {
    candidates.push_back({Below(directory, original)});
    candidates.push_back({directory / original.filename()});
  }
  return candidates;
}

// Below each directory by its path, or there by its name alone.
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
  // Pseudo-names such as "[vdso]" and nameless mappings have no file.
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

int OpenDebugFile(const std::string& name, const std::string& file, Elf* elf,
                  const SymbolOptions& options, std::string* path) {
  Wanted wanted;
  wanted.build_id = BuildIdOf(elf);
  if (const char* link = dwelf_elf_gnu_debuglink(elf, &wanted.checksum)) wanted.link = link;
  for (const Candidate& candidate : Candidates(name, file, wanted, options)) {
    std::error_code ignored;
    if (fs::equivalent(candidate.path, file, ignored)) continue;
    const int opened = OpenMatching(candidate.path, wanted, candidate.by_link);
    if (opened < 0) continue;
    *path = candidate.path.string();
    return opened;
  }
  return -1;
}

std::string MissingFileHint(const std::string& name, const std::string& build_id) {
  if (build_id.size() > 2) return BuildIdPath(build_id).string();
  return WithoutDeleted(name);
}

}  // namespace memleak
