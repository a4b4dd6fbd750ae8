// SPDX-License-Identifier: Apache-2.0
// libs: which functions of which libraries can be hooked.
#include <algorithm>
#include <iomanip>
#include <iostream>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/commands/options.h"
#include "tools/target/hook_targets.h"
#include "tools/target/inspect.h"

namespace memleak {
namespace {

constexpr const char* kLibsHelp = R"(
Lists the libraries of a process that import a function that can be hooked, and
the state of each function: "yes" can be hooked, "-" is not imported. Other
states are explained below the table. `on --lib` takes the names in the table. A
name may be a symbolic link to the file. Works for any process that you may
inspect, tracked or not, also for emulated ones.

Example:
  memleak libs 4711

Exit codes:
  0  something can be hooked
  1  nothing can be hooked
  2  no such process, or not permitted)";

/// What the table says about a function in a library.
struct State {
  const char* mark;
  const char* meaning;  ///< empty: explained in the help
};

// By ImportState. Then why a function that is imported cannot be hooked.
constexpr State kStates[] = {
    {"-", ""},
    {"yes", "can be hooked"},
    {"hooked", "is hooked"},
    {"lazy", "not resolved yet: start with LD_BIND_NOW=1, as memleak run does"},
    {"no-plt", "no jump slot: built with -fno-plt, or only the address is taken"},
    {"twice", "several jump slots; the tracker requires exactly one"},
    {"other", "imported, but hooked in other libraries only: memleak on --help"},
    {"name",
     "imported, but not reached: an earlier library has the same name, or\n"
     "          the name ends in neither .so nor .so.N"},
    {"?", "the file has been replaced or removed"}};
static_assert(std::size(kStates) == static_cast<std::size_t>(ImportState::kSeveral) + 4);
constexpr const State* kNotImported = &kStates[0];
constexpr const State* kCanBeHooked = &kStates[1];
constexpr const State* kIsHooked = &kStates[2];
constexpr const State* kOther = &kStates[6];
constexpr const State* kName = &kStates[7];
constexpr const State* kUnknown = &kStates[8];

const State* StateIn(const LoadedLibraries& loaded, const LoadedLibrary& library,
                     const std::string& function, const ProcessMemory& memory) {
  if (!library.file) return kUnknown;
  const ImportState state = ImportStateOf(loaded, library, function, memory);
  if (state != ImportState::kNone) {
    if (library.is_shadowed || !IsLibraryName(library.name)) return kName;
    if (!HasProxy(function, library.name)) return kOther;
  }
  return &kStates[static_cast<std::size_t>(state)];
}

/// The table of libraries and functions.
class LibraryTable {
 public:
  LibraryTable(const LoadedLibraries& loaded, const ProcessMemory& memory)
      : loaded_(loaded), memory_(memory) {
    for (const LoadedLibrary& library : loaded.libraries) {
      const bool own =
          library.name == protocol::kTrackerLibrary || library.name == protocol::kPreloadLibrary;
      if (!library.is_program && !own) Add(library);
    }
    std::sort(rows_.begin(), rows_.end(),
              [](const Row& a, const Row& b) { return a.library->name < b.library->name; });
  }

  /// Returns whether anything can be hooked.
  bool Print(const std::string& label) const {
    const auto can =
        std::count_if(rows_.begin(), rows_.end(), [](const Row& row) { return row.can_be_hooked; });
    std::cout << label << ": functions can be hooked in " << can << " of " << total_
              << " libraries\n";
    if (!rows_.empty()) PrintRows();
    if (total_ > rows_.size()) {
      std::cout << total_ - rows_.size() << " libraries import none of these\n";
    }
    for (const State& state : kStates) {
      if (*state.meaning == '\0' || !IsUsed(&state)) continue;
      std::cout << "  " << std::left << std::setw(8) << state.mark << state.meaning << "\n";
    }
    if (!memory_.IsOpen()) {
      std::cout << "Cannot read the slots: this needs root, or the right to debug the process.\n"
                   "Some may be hooked already, or unresolved.\n";
    }
    return can != 0;
  }

 private:
  struct Row {
    const LoadedLibrary* library;
    std::vector<const State*> states;
    bool can_be_hooked = false;
  };

  bool IsUsed(const State* state) const {
    return std::any_of(rows_.begin(), rows_.end(), [&](const Row& row) {
      return std::count(row.states.begin(), row.states.end(), state) != 0;
    });
  }

  void Add(const LoadedLibrary& library) {
    ++total_;
    Row row{&library, {}};
    bool imports = false;
    for (const std::string& function : HookableFunctions()) {
      const State* state = StateIn(loaded_, library, function, memory_);
      row.states.push_back(state);
      imports = imports || state != kNotImported;
      row.can_be_hooked =
          row.can_be_hooked || state == kCanBeHooked || state == kIsHooked || state == kUnknown;
    }
    if (imports) rows_.push_back(std::move(row));
  }

  void PrintRows() const {
    constexpr std::size_t kMinNameColumns = 16;
    std::vector<std::size_t> widths;
    std::size_t rest = OutputColumns() - 1;
    for (const std::string& function : HookableFunctions()) {
      widths.push_back(std::max<std::size_t>(7, function.size()));
      rest -= std::min(rest, widths.back() + 1);
    }
    std::size_t width = 0;
    for (const Row& row : rows_) width = std::max(width, Columns(row.library->name));
    width = std::min(width, std::max(rest, kMinNameColumns));
    std::cout << std::string(width, ' ') << std::right;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      std::cout << " " << std::setw(static_cast<int>(widths[i])) << HookableFunctions()[i];
    }
    std::cout << "\n";
    for (const Row& row : rows_) {
      // Users copy the names, so a long one is not shortened but gets its own line.
      const std::size_t columns = Columns(row.library->name);
      std::cout << FitWidth(row.library->name, 255)
                << (columns > width ? "\n" + std::string(width, ' ')
                                    : std::string(width - columns, ' '));
      for (std::size_t i = 0; i < widths.size(); ++i) {
        std::cout << " " << std::setw(static_cast<int>(widths[i])) << row.states[i]->mark;
      }
      std::cout << "\n";
    }
  }

  const LoadedLibraries& loaded_;
  const ProcessMemory& memory_;
  std::vector<Row> rows_;
  std::size_t total_ = 0;
};

int ListLibraries(const pid_t& pid) {
  const ProcessInfo process = InspectProcess(pid);
  const ProcessMemory memory(process.pid);
  const LoadedLibraries loaded = ReadLoadedLibraries(process, memory, HookableFunctions());
  return LibraryTable(loaded, memory).Print(process.Label()) ? kExitOk : kExitNegative;
}

}  // namespace

void AddLibs(Program* program) {
  const auto [command, pid] =
      program->AddCommand("libs", "List what can be hooked", kLibsHelp, ListLibraries);
  AddPid(command, pid);
}

}  // namespace memleak
