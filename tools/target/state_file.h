// SPDX-License-Identifier: Apache-2.0
// The state file of a tracked process, mapped by the controller. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "protocol/kinds.h"
#include "protocol/state.h"
#include "tools/base/files.h"

namespace memleak {

/// What a mapped file is.
enum class StateKind : std::uint8_t {
  kValid,
  kForeign,      ///< not a state file, or one that is not complete yet
  kIncompatible  ///< of a library that this controller does not match
};

/// A state file, mapped shared and writable. The process changes it at any time, so every read may
/// have another result. Numbers and texts in it may be wrong: the process may be damaged.
class StateFile {
 public:
  /// Maps the regular file `file`. Check Kind() before use.
  /// Throws UserError if memory is short.
  explicit StateFile(Descriptor file);
  ~StateFile();
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  StateKind Kind() const { return kind_; }
  /// The version of the library; also of one that does not match.
  const std::string& Version() const { return version_; }
  /// For flock.
  int Number() const { return file_.Number(); }
  /// Valid if Kind() is kValid.
  protocol::State* operator->() const { return state_; }

  protocol::Recording RecordingOf(const protocol::Kind& kind) const;

 private:
  void Check();

  Descriptor file_;
  StateKind kind_ = StateKind::kForeign;
  std::string version_;
  protocol::State* state_ = nullptr;
};

/// The text in a field of State, which may lack its NUL.
template <std::size_t size>
std::string TextOf(const char (&field)[size]) {
  const std::string_view whole(field, size);
  return std::string(whole.substr(0, whole.find('\0')));
}

}  // namespace memleak
