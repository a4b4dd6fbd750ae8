// libs: what could be hooked in a process.
#include <algorithm>
#include <iomanip>
#include <iostream>
#include <memory>

#include "tools/base/control.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/options.h"
#include "tools/target/hook_targets.h"
#include "tools/target/inspect.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Lists the libraries of a process that import a function which can be hooked, by
the names that `on --lib` takes, and for each function how: "yes" can be hooked,
"-" is not imported; others are explained below the table. A library is listed
by the name it was loaded by, which may be that of a link to its file. Works for
any process that may be looked at, tracked or not, and for emulated ones.

Example:
  memleak libs 4711

Exit codes:
  0  something can be hooked
  1  nothing can
  2  no such process, or not permitted)";

/// The table of libraries and functions.
class LibraryTable {
 public:
  LibraryTable(const LoadedLibraries& loaded, const ProcessMemory& memory)
      : loaded_(loaded), memory_(memory) {
    for (const LoadedLibrary& library : loaded.libraries) {
      const bool own = library.name == kTrackerLibrary || library.name == kPreloadLibrary;
      if (!library.is_program && !own) Add(library);
    }
    std::sort(rows_.begin(), rows_.end(),
              [](const Row& a, const Row& b) { return a.library->name < b.library->name; });
  }

  void Print(const std::string& label) const {
    const std::size_t can = static_cast<std::size_t>(std::count_if(
        rows_.begin(), rows_.end(), [](const Row& row) { return row.can_be_hooked; }));
    std::cout << label << ": functions can be hooked in " << can << " of " << total_
              << " libraries\n";
    if (!rows_.empty()) PrintRows();
    if (total_ > rows_.size()) {
      std::cout << total_ - rows_.size() << " libraries import none of these\n";
    }
    for (const auto& [mark, meaning] : Legend()) {
      if (IsUsed(mark)) std::cout << "  " << std::left << std::setw(8) << mark << meaning << "\n";
    }
    if (!memory_.IsOpen()) {
      std::cout << "The slots could not be looked at: that takes root, or the right to debug the\n"
                   "process. Some may be hooked already, or not resolved.\n";
    }
  }

  bool AnyCanBeHooked() const {
    return std::any_of(rows_.begin(), rows_.end(),
                       [](const Row& row) { return row.can_be_hooked; });
  }

 private:
  struct Row {
    const LoadedLibrary* library;
    std::vector<std::string> marks;
    bool can_be_hooked = false;
  };

  static std::vector<std::pair<std::string, std::string>> Legend() {
    return {{"yes", "can be hooked"},
            {"hooked", "is hooked"},
            {"lazy", "not resolved yet: start with LD_BIND_NOW=1, as memleak run does"},
            {"no-plt", "no jump slot: built with -fno-plt, or only the address is taken"},
            {"twice", "more than one jump slot; the tracker takes exactly one"},
            {"other", "imported, but ioctl is hooked in libdmabufheap.so and libgsl.so alone"},
            {"name",
             "imported, but not reached: another library has its name, or the name\n"
             "          ends in neither .so nor .so.N"},
            {"?", "its file has been replaced or removed and cannot be looked at"}};
  }

  bool IsUsed(const std::string& mark) const {
    return std::any_of(rows_.begin(), rows_.end(), [&](const Row& row) {
      return std::find(row.marks.begin(), row.marks.end(), mark) != row.marks.end();
    });
  }

  std::string Mark(const LoadedLibrary& library, const std::string& function) const {
    if (!library.file) return "?";
    const ImportState state = ImportStateOf(loaded_, library, function, memory_);
    if (state == ImportState::kNone) return "-";
    if (library.is_shadowed || !IsLibraryName(library.name)) return "name";
    if (!HasProxy(function, library.name)) return "other";
    switch (state) {
      case ImportState::kNoSlot:
        return "no-plt";
      case ImportState::kSeveral:
        return "twice";
      case ImportState::kUnresolved:
        return "lazy";
      case ImportState::kHooked:
        return "hooked";
      default:
        return "yes";
    }
  }

  void Add(const LoadedLibrary& library) {
    ++total_;
    Row row{&library, {}};
    for (const std::string& function : HookableFunctions()) {
      row.marks.push_back(Mark(library, function));
      const std::string& mark = row.marks.back();
      row.can_be_hooked = row.can_be_hooked || mark == "yes" || mark == "hooked" || mark == "?";
    }
    const bool imports = std::any_of(row.marks.begin(), row.marks.end(),
                                     [](const std::string& mark) { return mark != "-"; });
    if (imports) rows_.push_back(std::move(row));
  }

  void PrintRows() const {
    // Six columns of eight characters leave 31 columns of 80 for names, and a blank.
    constexpr std::size_t kMostNameColumns = 31;
    std::size_t width = 0;
    for (const Row& row : rows_) width = std::max(width, Columns(row.library->name));
    width = std::min(width, kMostNameColumns);
    std::cout << std::string(width, ' ');
    for (const std::string& function : HookableFunctions()) {
      std::cout << " " << std::right << std::setw(7) << function;
    }
    std::cout << "\n";
    for (const Row& row : rows_) {
      // Users copy the names, so a long one is not shortened but gets its own line.
      const std::size_t columns = Columns(row.library->name);
      std::cout << FitWidth(row.library->name, 255)
                << (columns > width ? "\n" + std::string(width, ' ')
                                    : std::string(width - columns, ' '));
      for (const std::string& mark : row.marks) {
        std::cout << " " << std::right << std::setw(7) << mark;
      }
      std::cout << "\n";
    }
  }

  const LoadedLibraries& loaded_;
  const ProcessMemory& memory_;
  std::vector<Row> rows_;
  std::size_t total_ = 0;
};

int ListLibraries(pid_t pid) {
  const ProcessInfo process = InspectProcess(pid);
  const ProcessMemory memory(process.pid);
  const LoadedLibraries loaded = ReadLoadedLibraries(process, memory, HookableFunctions());
  const LibraryTable table(loaded, memory);
  table.Print(process.Label());
  return table.AnyCanBeHooked() ? kExitOk : kExitNegative;
}

}  // namespace

void AddLibs(Program* program) {
  CLI::App* command = program->AddCommand("libs", "List what could be hooked", kHelp);
  const auto pid = std::make_shared<pid_t>();
  AddPid(command, pid.get());
  program->SetAction(command, [pid] { return ListLibraries(*pid); });
}

}  // namespace memleak
