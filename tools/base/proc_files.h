// SPDX-License-Identifier: Apache-2.0
// The texts of files below /proc/PID. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace memleak {

/// The value of the field `name` in the text of /proc/PID/status; empty if there is none.
std::string StatusField(const std::string& status, const std::string& name);

/// The effective id in the field `name`, "Uid" or "Gid", of the text of /proc/PID/status.
std::uint32_t EffectiveId(const std::string& status, const std::string& name);

/// The process id in the innermost PID namespace of the process, from the text of its
/// /proc/PID/status; `pid` if the text does not tell.
std::int32_t InnerPid(const std::string& status, std::int32_t pid);

/// The start time in the text of /proc/PID/stat, in clock ticks since the system started; nothing
/// if the text is malformed.
std::optional<std::uint64_t> StartTicks(std::string_view stat);

}  // namespace memleak
