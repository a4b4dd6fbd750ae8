// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the index and the slots of a loaded library whose tables contain arbitrary data. One
// thread.
//
// A read outside of the library's readable segments ends the process. Each library is indexed with
// the rules of both dynamic linkers.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "linker/elfSharedLibData.h"
#include "linker/import_slots.h"
#include "platform/elf_policy.h"
#include "tests/fuzz/elf_image.h"
#include "tests/records/log_capture.h"

namespace {

using lumora::linker::elfSharedLibData;

bool android_rules = false;

bool IsEmpty(const elfSharedLibData& library) {
  return library.plt_relocations_ == nullptr && library.relocations_ == nullptr &&
         library.symtab_ == nullptr && library.strtab_ == nullptr && library.bloom_ == nullptr &&
         library.elf_buckets_ == nullptr;
}

void CheckSlots(const std::vector<void**>& slots, const fuzz::ElfImage& image) {
  for (void** slot : slots) {
    fuzz::Require(image.Readable(slot, sizeof(*slot)), "a slot lies in the library");
  }
}

void Index(const std::vector<const char*>& names, const fuzz::ElfImage& image) {
  LogLines().clear();
  const elfSharedLibData library(&image.info());
  // An invalid library gets one log line. One that lacks a table may get one more line.
  const std::vector<std::string>& lines = LogLines();
  const bool skipped = std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("skipped libfuzzed.so: ") != line.npos;
  });
  fuzz::Require(lines.size() <= (skipped ? 1 : 2), "a library is not worth many lines");
  fuzz::Require(!skipped || IsEmpty(library), "a library that was skipped has no tables");
  for (const char* name : names) {
    for (const Elf64_Sym* symbol :
         {library.find_symbol_by_name(name), library.gnu_find_symbol_by_name(name)}) {
      if (symbol == nullptr) continue;
      fuzz::Require(image.Readable(symbol, sizeof(*symbol)) &&
                        std::string(library.strtab_ + symbol->st_name) == name,
                    "a symbol that is found has the name");
      const std::vector<void**> slots = library.get_plt_relocations(symbol);
      CheckSlots(slots, image);
      if (!slots.empty()) CheckSlots(library.get_plt_relocations(*slots.front()), image);
    }
  }
  CheckSlots(library.get_plt_relocations(static_cast<const void*>(nullptr)), image);
  fuzz::Require(!library, "a library that the dynamic linker does not know is not valid");
}

/// The slots that the loader of a running process looks for.
void ReadSlots(const fuzz::ElfImage& image) {
  const lumora::linker::ImportSlots object(image.info());
  std::size_t characters = 0;
  object.ForEachSlot([&](const lumora::linker::ImportSlots::Slot& slot) {
    characters += std::strlen(slot.name);
    fuzz::Require(!object.Contains(slot.place, slot.symbol->st_size) || slot.symbol->st_size == 0 ||
                      image.Readable(slot.place, slot.symbol->st_size),
                  "a place that is contained lies in the library");
  });
  object.ForEachFunction(
      [&](const Elf64_Sym&, const char* name) { characters += std::strlen(name); });
  // The compiler must not remove the reads.
  __asm__ volatile("" : : "r"(characters));
}

}  // namespace

namespace platform {

bool AcceptsLibrary(const char* name) {
  return LinuxAcceptsLibrary(name);
}

std::uint64_t DynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias) {
  return android_rules ? AndroidDynamicAddress(tag, value, load_bias)
                       : LinuxDynamicAddress(tag, value, load_bias);
}

}  // namespace platform

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kMaxNames = 12;
  fuzz::ElfImage image(data, size);
  if (!image.Load()) return 0;
  std::vector<const char*> names = image.SymbolNames(kMaxNames);
  names.insert(names.end(), {"", "no_such_function"});
  for (const bool rules : {true, false}) {
    android_rules = rules;
    Index(names, image);
    ReadSlots(image);
  }
  return 0;
}
