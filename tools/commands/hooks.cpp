// `on` for the kinds that are recorded through hooks, and `libs`: what is or could be hooked.
#include <algorithm>
#include <iomanip>
#include <iostream>

#include "tools/base/control.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/commands.h"
#include "tools/target/hook_outcome.h"
#include "tools/target/hook_targets.h"
#include "tools/target/interference.h"
#include "tools/target/log_tail.h"
#include "tools/target/root_directory.h"
#include "tools/target/signal_sender.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

void Complain(const std::string& line) {
  std::cerr << "memleak: " << Printable(line) << "\n";
}

// What can be done of the options; says what cannot. Throws when that is all of it.
HookPlan PlanFor(const ProcessInfo& process, const LoadedLibraries& loaded,
                 const OnOptions& options, const ProcessMemory& memory) {
  const HookNames names = NamesFor(options.kind, options.libraries, options.functions);
  const HookRequest request = {names.libraries, names.functions, !options.functions.empty()};
  HookPlan plan = PlanHooks(process, loaded, request, memory);
  if (plan.pairs.empty() && plan.problems.size() == 1) throw UserError(plan.problems.front());
  for (const UserError& problem : plan.problems) Complain(problem.what());
  if (plan.pairs.empty()) {
    throw UserError("nothing of this can be hooked in " + process.Label() + "; nothing was sent",
                    "see memleak libs " + std::to_string(process.pid));
  }
  return plan;
}

// Puts the settings in force and returns the number of frames that are kept.
std::uint32_t WriteHookSettings(const ProcessInfo& process, const OnOptions& options,
                                const HookPlan& plan) {
  if (options.type.value_or(kUnwindFramePointers) != kUnwindFramePointers) {
    Complain(kNoUnwindTables);
  }
  const std::string current = ReadSettings(process).text;
  const std::string updated = WithHooks(UpdateProperties(current, {options.depth, std::nullopt}),
                                        plan.libraries, plan.functions);
  WriteSettings(process, updated);
  return ParseSettings(updated).depth.value_or(kDefaultDepth);
}

// One line for each library of `pairs`.
void PrintPairs(const char* what, const std::vector<HookPair>& pairs, std::ostream& out) {
  std::string library;
  for (const HookPair& pair : pairs) {
    if (pair.library == library) {
      out << ", " << pair.function;
      continue;
    }
    if (!library.empty()) out << "\n";
    library = pair.library;
    out << what << FitWidth(library, 80) << ": " << pair.function;
  }
  if (!library.empty()) out << "\n";
}

void PrintHooked(const HookPlan& plan, const HookOutcome& outcome) {
  if (!outcome.slots_read) return PrintPairs("asked for  ", plan.pairs, std::cout);
  PrintPairs("hooked  ", outcome.hooked, std::cout);
  std::vector<HookPair> missing;
  for (const HookPair& pair : plan.pairs) {
    const bool done =
        std::any_of(outcome.hooked.begin(), outcome.hooked.end(), [&](const HookPair& hooked) {
          return hooked.library == pair.library && hooked.function == pair.function;
        });
    if (!done) missing.push_back(pair);
  }
  PrintPairs("memleak: not hooked: ", missing, std::cerr);
}

/// The table that `libs` prints.
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
    // Six columns of eight characters leave this much of eighty for the names.
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
      // Names are to be copied, so long ones are not cut but get a line of their own.
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

}  // namespace

int HookOnCommand(const OnOptions& options) {
  const KindInfo& kind = InfoOf(options.kind);
  const ProcessInfo process = RequireTracked(options.pid, kStartPatienceMs);
  RefuseBeside(process, options.kind);
  const ProcessMemory memory(process.pid);
  const LoadedLibraries loaded = ReadLoadedLibraries(process, memory, HookableFunctions());
  const HookPlan plan = PlanFor(process, loaded, options, memory);
  const std::uint32_t depth = WriteHookSettings(process, options, plan);
  const LogTail log(process);
  const bool hooked_before = !HookedPairs(process, plan, memory).empty();

  // Both bits in one word: recording goes on first, and what there was is dropped if it did.
  SendCommand(process, options.keep ? kind.on : kind.on | kind.clear, 0);
  const HookOutcome outcome =
      WaitForHooks(process, kind, plan, log, memory, TrampolineBytes(loaded.mappings));
  for (const std::string& complaint : outcome.complaints) {
    Complain("the tracker says: " + FitWidth(complaint, 200));
  }
  if (outcome.result == HookResult::kNothing) {
    const std::string log_place = LogPlace(process);
    throw UserError("the tracker hooked nothing in " + process.Label(),
                    "see memleak libs " + std::to_string(process.pid) +
                        (log_place.empty() ? "" : " and its log: " + log_place));
  }
  std::cout << process.Label() << ": " << kind.name;
  if (outcome.result == HookResult::kUnseen) {
    std::cout << " recording asked for; " << Advice().unseen_hooks << "\n";
  } else {
    std::cout << " recording on, " << (options.keep ? "earlier records kept" : "tables emptied")
              << ", " << depth << " frames by frame pointers\n";
  }
  PrintHooked(plan, outcome);
  if (hooked_before) {
    std::cout
        << "        Some were hooked before. These have one hook more now, and one report takes\n"
           "        one hook off: give as many as it takes.\n";
  }
  return kExitOk;
}

void PrintStillHooked(const ProcessInfo& process) {
  const ProcessMemory memory(process.pid);
  if (!memory.IsOpen()) return;
  std::vector<HookPair> left;
  try {
    left = AllHookedPairs(process, memory);
  } catch (const UserError&) {
    return;  // it has ended since, and took all hooks with it
  }
  if (left.empty()) return;
  PrintPairs("hooked  ", left, std::cout);
  std::cout
      << "        Still, but nothing is recorded: of hooks that several `on` have put in, one\n"
         "        report takes one off, in the libraries that the latest `on` has named.\n";
}

int LibsCommand(pid_t pid) {
  const ProcessInfo process = InspectProcess(pid);
  const ProcessMemory memory(process.pid);
  const LoadedLibraries loaded = ReadLoadedLibraries(process, memory, HookableFunctions());
  const LibraryTable table(loaded, memory);
  table.Print(process.Label());
  return table.AnyCanBeHooked() ? kExitOk : kExitNegative;
}

}  // namespace memleak
