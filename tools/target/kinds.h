// SPDX-License-Identifier: Apache-2.0
// The kinds of memory, in addition to their rows in the protocol: the names that are hooked, and
// the settings that contain them.
//
// Used by the commands that take --kind. Single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/kinds.h"
#include "protocol/protocol.h"

namespace memleak {

using protocol::Kind;

/// "mmap, ion or gpu": the kinds that are recorded through hooks.
std::string HookedKindNames();

/// The functions of `kind`, in the order of its row.
std::vector<std::string> FunctionsOf(const Kind& kind);

/// For help: two lines for each hooked kind, what it records and the functions that are hooked.
std::string HelpOnHookedKinds();

/// The names in a list separated by commas, each once, without the blanks around them: the tracker
/// would take those as part of a name. Drops directories before a name. `option` names the list in
/// errors. Throws UserError if there is no name, or if a property cannot hold one.
std::vector<std::string> ParseNames(const std::string& option, std::string_view list);

/// What is recorded, and how.
struct RecordingOptions {
  const Kind* kind = &protocol::kNative;
  std::string libraries = {};  ///< to hook, separated by commas; empty: the default of the kind
  std::string functions = {};  ///< the same
  std::optional<std::uint32_t> depth = {};
  std::optional<char> type = {};

  /// Whether the unwinder is asked for. It cannot cross a hook.
  bool WantsUnwinder() const {
    return type.value_or(protocol::kUnwindFramePointers) != protocol::kUnwindFramePointers;
  }
};

/// What is to be hooked.
struct HookNames {
  std::vector<std::string> libraries;
  std::vector<std::string> functions;
};

/// The names in the options --lib and --func. An empty option means the library or the functions of
/// the kind. Throws UserError as ParseNames does; also if the kind needs a library and none is
/// given, or if a name is given for native memory.
HookNames NamesFor(const RecordingOptions& options);

/// A note for users who ask for the unwinder.
inline constexpr const char* kNoUnwindTables =
    "ignoring --unwind dwarf: the unwinder cannot cross a hook; using frame pointers";

/// `properties` with the hook settings, and with frame pointers as the backtrace type. Throws
/// UserError if a property cannot hold the names.
std::string WithHooks(const std::string& properties, const HookNames& names);

}  // namespace memleak
