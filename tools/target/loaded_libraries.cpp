// SPDX-License-Identifier: Apache-2.0
#include "tools/target/loaded_libraries.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "tools/base/files.h"
#include "tools/target/inspect.h"

namespace memleak {
namespace {

// Offsets in the dynamic linker's structs r_debug and link_map, the same on all 64-bit machines.
constexpr std::uint64_t kListHead = 8;
constexpr std::uint64_t kEntryBias = 0;
constexpr std::uint64_t kEntryName = 8;
constexpr std::uint64_t kEntryNext = 24;
// More than any process has. A list that changes meanwhile, or is none, may be endless.
constexpr int kMaxEntries = 20000;

/// An entry of the dynamic linker's list.
struct ListEntry {
  std::uint64_t bias = 0;
  std::string name;
};

// The files that are mapped from their start and are libraries for the process's machine or
// unreadable.
std::vector<LoadedLibrary> MappedLibraries(const ProcessInfo& process,
                                           const std::vector<Mapping>& mappings,
                                           const std::vector<std::string>& functions) {
  const std::uint16_t machine = MachineOf(process);
  std::vector<LoadedLibrary> libraries;
  for (const Mapping& mapping : mappings) {
    if (!mapping.IsFile() || mapping.offset != 0) continue;
    LoadedLibrary library;
    library.path = mapping.path;
    library.bias = mapping.start;
    library.file = ReadDynamicFile(FileOf(process, mapping), functions);
    if (library.file) {
      if (library.file->machine != machine || library.file->first_offset != 0) continue;
      library.bias -= library.file->first_address;
      library.is_program = library.file->debug_entry.has_value();
    } else if (!mapping.deleted || !IsLibraryName(LastPart(mapping.path))) {
      continue;
    }
    libraries.push_back(std::move(library));
  }
  return libraries;
}

std::vector<ListEntry> ReadList(const std::vector<LoadedLibrary>& libraries,
                                const ProcessMemory& memory) {
  const auto program =
      std::find_if(libraries.begin(), libraries.end(),
                   [](const LoadedLibrary& library) { return library.is_program; });
  if (program == libraries.end()) return {};
  const auto head = memory.Word(program->bias + *program->file->debug_entry);
  auto entry = head ? memory.Word(*head + kListHead) : std::nullopt;
  std::vector<ListEntry> list;
  for (int count = 0; entry && *entry != 0 && count < kMaxEntries; ++count) {
    const auto bias = memory.Word(*entry + kEntryBias);
    const auto name = memory.Word(*entry + kEntryName);
    if (!bias || !name) break;
    list.push_back({*bias, memory.Text(*name)});
    entry = memory.Word(*entry + kEntryNext);
  }
  return list;
}

// Keeps what is on the list, in its order and with its names. A file may be mapped as data only.
std::vector<LoadedLibrary> NameByList(std::vector<LoadedLibrary> libraries,
                                      const std::vector<ListEntry>& list) {
  std::vector<LoadedLibrary> named;
  for (const ListEntry& entry : list) {
    const auto library =
        std::find_if(libraries.begin(), libraries.end(),
                     [&](const LoadedLibrary& candidate) { return candidate.bias == entry.bias; });
    if (library == libraries.end()) continue;
    named.push_back(std::move(*library));
    libraries.erase(library);
    named.back().name = LastPart(entry.name);
  }
  return named;
}

void NameByFile(std::vector<LoadedLibrary>* libraries) {
  for (LoadedLibrary& library : *libraries) {
    const bool has_soname = library.file && !library.file->soname.empty();
    library.name = has_soname ? LastPart(library.file->soname) : LastPart(library.path);
  }
}

void MarkShadowed(std::vector<LoadedLibrary>* libraries) {
  for (auto library = libraries->begin(); library != libraries->end(); ++library) {
    library->is_shadowed =
        std::any_of(libraries->begin(), library, [&](const LoadedLibrary& before) {
          return before.name == library->name && !before.is_program;
        });
  }
}

}  // namespace

std::string FileOf(const ProcessInfo& process, const Mapping& mapping) {
  if (!mapping.deleted) return process.outside + mapping.path;
  // Another file may have its name now.
  std::ostringstream path;
  path << "/proc/" << process.pid << "/map_files/" << std::hex << mapping.start << "-"
       << mapping.end;
  return path.str();
}

ProcessMemory::ProcessMemory(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/mem";
  file_ = Descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC));
  // A policy may allow reads only.
  if (!file_.IsOpen()) file_ = OpenToRead(path);
}

std::optional<std::uint64_t> ProcessMemory::Word(std::uint64_t address) const {
  std::uint64_t word = 0;
  const ssize_t count = pread(file_.Number(), &word, sizeof(word), static_cast<off_t>(address));
  if (count != static_cast<ssize_t>(sizeof(word))) return std::nullopt;
  return word;
}

bool ProcessMemory::Write(std::uint64_t address, std::string_view bytes) const {
  return pwrite(file_.Number(), bytes.data(), bytes.size(), static_cast<off_t>(address)) ==
         static_cast<ssize_t>(bytes.size());
}

std::string ProcessMemory::Text(std::uint64_t address) const {
  constexpr std::size_t kPage = 4096;
  std::array<char, kPage> text{};
  // In two steps: the page after a short string may be unmapped.
  const std::size_t first = std::min(kPage - address % kPage, kPage - 1);
  const ssize_t count = pread(file_.Number(), text.data(), first, static_cast<off_t>(address));
  if (count <= 0) return "";
  auto end = text.begin() + count;
  if (std::find(text.begin(), end, '\0') == end) {
    const ssize_t more = pread(file_.Number(), &*end, kPage - 1 - static_cast<std::size_t>(count),
                               static_cast<off_t>(address) + count);
    end += std::max<ssize_t>(more, 0);
  }
  return {text.begin(), std::find(text.begin(), end, '\0')};
}

std::uint16_t MachineOf(const ProcessInfo& process) {
  if (process.is_emulated) {
    if (process.executable.find("aarch64") != std::string::npos) return EM_AARCH64;
    if (process.executable.find("x86_64") != std::string::npos) return EM_X86_64;
    return EM_NONE;
  }
  const std::optional<ElfInfo> image = ReadElf("/proc/" + std::to_string(process.pid) + "/exe");
  return image ? image->machine : std::uint16_t{EM_NONE};
}

bool IsLibraryName(std::string_view name) {
  constexpr std::string_view kDigits = "0123456789";
  // Strip version numbers from the end.
  while (!name.ends_with(".so")) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot + 1 == name.size()) return false;
    if (name.find_first_not_of(kDigits, dot + 1) != std::string_view::npos) return false;
    name = name.substr(0, dot);
  }
  return true;
}

LoadedLibraries ReadLoadedLibraries(const ProcessInfo& process, const ProcessMemory& memory,
                                    const std::vector<std::string>& functions) {
  LoadedLibraries loaded;
  loaded.mappings = ParseMaps(ReadMaps(process.pid));
  std::vector<LoadedLibrary> libraries = MappedLibraries(process, loaded.mappings, functions);
  const std::vector<ListEntry> list = ReadList(libraries, memory);
  if (list.empty()) {
    NameByFile(&libraries);
    loaded.libraries = std::move(libraries);
  } else {
    loaded.libraries = NameByList(std::move(libraries), list);
  }
  MarkShadowed(&loaded.libraries);
  return loaded;
}

}  // namespace memleak
