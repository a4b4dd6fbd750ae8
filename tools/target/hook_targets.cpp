// SPDX-License-Identifier: Apache-2.0
#include "tools/target/hook_targets.h"

#include <algorithm>

#include "protocol/protocol.h"
#include "tools/base/names.h"

namespace memleak {
namespace {

const LoadedLibrary* Find(const LoadedLibraries& loaded, const std::string& name) {
  const auto by = [&](auto matches) -> const LoadedLibrary* {
    const auto found = std::find_if(loaded.libraries.begin(), loaded.libraries.end(), matches);
    return found == loaded.libraries.end() ? nullptr : &*found;
  };
  // The name that the tracker knows takes precedence. Users may have read another name in maps.
  const LoadedLibrary* library = by([&](const LoadedLibrary& candidate) {
    return candidate.name == name && !candidate.is_program;
  });
  if (library != nullptr) return library;
  return by([&](const LoadedLibrary& candidate) {
    return candidate.path.substr(candidate.path.rfind('/') + 1) == name ||
           (candidate.file && candidate.file->soname == name);
  });
}

bool IsOwn(const std::string& library) {
  return library == protocol::kTrackerLibrary || library == protocol::kPreloadLibrary;
}

const Mapping* MappingOf(const LoadedLibraries& loaded, std::uint64_t address) {
  const auto found = std::find_if(
      loaded.mappings.begin(), loaded.mappings.end(),
      [&](const Mapping& mapping) { return address >= mapping.start && address < mapping.end; });
  return found == loaded.mappings.end() ? nullptr : &*found;
}

// The state of a jump slot, from its content.
ImportState StateOfSlot(const LoadedLibraries& loaded, const LoadedLibrary& library,
                        const Import& import, const ProcessMemory& memory) {
  const std::optional<std::uint64_t> target = memory.Word(library.bias + import.slot);
  if (!target) return ImportState::kReady;
  const Mapping* mapping = MappingOf(loaded, *target);
  if (mapping == nullptr) return ImportState::kUnresolved;
  // Code outside of files is a trampoline. It may have a name "[anon:...]". Under an emulator it is
  // not executable.
  if (mapping->path.empty() || mapping->path.starts_with("[anon")) return ImportState::kHooked;
  // An unresolved slot leads back into its own library.
  const bool own = mapping->path == library.path && !import.defined_here;
  return own ? ImportState::kUnresolved : ImportState::kReady;
}

bool Has(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void AddOnce(const std::string& name, std::vector<std::string>* names) {
  if (!Has(*names, name)) names->push_back(name);
}

/// Makes a plan.
class Planner {
 public:
  Planner(const ProcessInfo& process, const LoadedLibraries& loaded, const HookRequest& request,
          const ProcessMemory& memory)
      : process_(process),
        loaded_(loaded),
        request_(request),
        memory_(memory),
        list_("see memleak libs " + std::to_string(process.pid)) {}

  HookPlan Make() {
    for (const std::string& name : request_.libraries) AddLibrary(name);
    for (const HookPair& pair : several_) AddSeveral(pair);
    return std::move(plan_);
  }

 private:
  void Problem(const std::string& what, const std::string& remedy) {
    plan_.problems.emplace_back(what, remedy);
  }

  void AddLibrary(const std::string& requested) {
    const LoadedLibrary* library = Find(loaded_, requested);
    if (library == nullptr) {
      return Problem(requested + " is not loaded in " + process_.Label(),
                     list_ + ", or switch on after it is loaded");
    }
    if (library->is_program) {
      return Problem(requested + " is the program itself; only libraries can be hooked", list_);
    }
    const std::string& name = library->name;
    if (IsOwn(name)) return Problem(name + " is a part of memleak", "name another library");
    if (!IsLibraryName(name)) {
      return Problem("the tracker ignores " + name + ": its name ends in neither .so nor .so.N",
                     "rename it");
    }
    if (library->is_shadowed) {
      return Problem(library->path + " has the name of an earlier library, which is hooked instead",
                     "rename it");
    }
    const std::size_t before = Count();
    for (const std::string& function : request_.functions) AddPair(*library, function);
    if (Count() == before) {
      Problem(name + " imports none of " + Joined(request_.functions), list_);
    }
  }

  std::size_t Count() const { return plan_.pairs.size() + plan_.problems.size() + several_.size(); }

  // A pair outside the plan is hooked too if other pairs have its library and its function: the
  // properties hold separate lists.
  void AddSeveral(const HookPair& pair) {
    const std::string several = pair.library + " has several jump slots for " + pair.function;
    if (Has(plan_.libraries, pair.library) && Has(plan_.functions, pair.function)) {
      return Problem(
          several + " and is hooked there anyway: every function is hooked in every library",
          "omit one of the two");
    }
    Problem(several + "; the tracker requires exactly one", "omit it");
  }

  void AddPair(const LoadedLibrary& library, const std::string& function) {
    const std::string& name = library.name;
    if (!HasProxy(function, name)) {
      return Problem(function + " cannot be hooked in " + name,
                     "see memleak on --help for functions and their libraries");
    }
    switch (ImportStateOf(loaded_, library, function, memory_)) {
      case ImportState::kNone:
        if (request_.functions_given) Problem(name + " does not import " + function, list_);
        return;
      case ImportState::kNoSlot:
        return Problem(name + " has no jump slot for " + function +
                           ": it is built with -fno-plt, or only takes the function's address",
                       "build it without -fno-plt");
      case ImportState::kSeveral:
        several_.push_back({name, function});
        return;
      case ImportState::kUnresolved:
        return Problem(name + " has not resolved " + function + " yet (lazy binding)",
                       "start the program with LD_BIND_NOW=1, as memleak run does");
      case ImportState::kReady:
      case ImportState::kHooked:
        break;
    }
    plan_.pairs.push_back({name, function});
    AddOnce(name, &plan_.libraries);
    AddOnce(function, &plan_.functions);
  }

  const ProcessInfo& process_;
  const LoadedLibraries& loaded_;
  const HookRequest& request_;
  const ProcessMemory& memory_;
  std::string list_;
  HookPlan plan_;
  std::vector<HookPair> several_;
};

}  // namespace

const std::vector<std::string>& HookableFunctions() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> names;
    for (const Kind& kind : protocol::kKinds) {
      for (const std::string& function : FunctionsOf(kind)) AddOnce(function, &names);
    }
    return names;
  }();
  return all;
}

bool HasProxy(const std::string& function, const std::string& library) {
  return std::any_of(std::begin(protocol::kKinds), std::end(protocol::kKinds),
                     [&](const Kind& kind) { return kind.Records(function, library); });
}

ImportState ImportStateOf(const LoadedLibraries& loaded, const LoadedLibrary& library,
                          const std::string& function, const ProcessMemory& memory) {
  if (!library.file) return ImportState::kReady;
  ImportState state = ImportState::kNone;
  int slots = 0;
  for (const Import& import : library.file->imports) {
    if (import.function != function) continue;
    if (import.jump_slot) {
      state = StateOfSlot(loaded, library, import, memory);
      ++slots;
    } else if (slots == 0) {
      state = ImportState::kNoSlot;
    }
  }
  return slots > 1 ? ImportState::kSeveral : state;
}

bool IsHooked(const LoadedLibraries& loaded, const HookPair& pair, const ProcessMemory& memory) {
  const LoadedLibrary* const library = Find(loaded, pair.library);
  return library != nullptr && library->file &&
         ImportStateOf(loaded, *library, pair.function, memory) == ImportState::kHooked;
}

HookPlan PlanHooks(const ProcessInfo& process, const LoadedLibraries& loaded,
                   const HookRequest& request, const ProcessMemory& memory) {
  return Planner(process, loaded, request, memory).Make();
}

}  // namespace memleak
