// SPDX-License-Identifier: Apache-2.0
// Judges at which places of a program a thread can be made to call functions. Single-threaded.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/target/debugger.h"
#include "tools/target/loaded_libraries.h"
#include "tools/target/process_info.h"

namespace memleak {

/// What the code at an address does.
enum class Place : std::uint8_t {
  kProgram,
  kCLibrary,
  kLinker,     ///< the dynamic linker, and functions of the C library that use it
  kAllocator,  ///< the C library's, or a library that defines malloc
  kFork,       ///< fork, exit, and what starts threads
};

/// A stack of a thread.
struct Stack {
  /// From the inside outwards.
  std::vector<Place> places;
  bool in_signal_handler = false;

  bool Has(Place place) const;
};

/// The code of a process: its functions by address, and its unwind tables.
class ProcessCode {
 public:
  /// Reads the libraries of `process`. Throws UserError if the process has ended, or has no C
  /// library that can be attached to.
  explicit ProcessCode(const ProcessInfo& process);
  ~ProcessCode();
  ProcessCode(const ProcessCode&) = delete;
  ProcessCode& operator=(const ProcessCode&) = delete;

  /// Reads the memory map of the process. Returns whether it has loaded or closed libraries since
  /// the constructor.
  bool IsOutdated();

  /// The address of the C library's function `name`, 0 if it has none.
  std::uint64_t Function(const std::string& name) const;

  /// The stack of `thread`, which is stopped. Ends early at code without unwind tables.
  Stack StackOf(const StoppedThread& thread) const;

  /// The address of the malloc that the process uses; 0 if there is none.
  std::uint64_t Malloc() const { return malloc_; }

  /// Why `thread` cannot be made to call functions; null if it can. Call IsOutdated first in each
  /// stop: stacks are looked up in the latest memory map.
  const char* WhyNot(const StoppedThread& thread, const Stack& stack) const;

 private:
  struct Unwinder;

  void AddLibrary(const LoadedLibrary& library, const std::vector<Mapping>& mappings);
  void AddCLibrary(const LoadedLibrary& library, const std::vector<struct ElfSymbol>& symbols);
  Place PlaceOf(std::uint64_t address) const;

  struct Range {
    std::uint64_t end;
    Place place;
  };

  ProcessInfo process_;
  ProcessMemory memory_;
  std::string code_;  // the executable mappings
  std::vector<Mapping> mappings_;
  std::vector<Mapping> latest_mappings_;
  std::map<std::uint64_t, Range> libraries_;
  std::map<std::uint64_t, Range> functions_;  // of the C library, hide libraries_
  std::map<std::string, std::uint64_t> addresses_;
  std::uint64_t malloc_ = 0;
  std::unique_ptr<Unwinder> unwinder_;
};

}  // namespace memleak
