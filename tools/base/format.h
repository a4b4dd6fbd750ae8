// SPDX-License-Identifier: Apache-2.0
// Human-readable numbers, times and texts. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace memleak {

/// "512 B", "1.5 KiB", "12.0 MiB", ... up to EiB; one decimal above bytes.
std::string FormatBytes(std::uint64_t bytes);

/// "1,572,864".
std::string FormatCount(std::uint64_t count);

/// Seconds in at most two units: "8s", "3m 20s", "2h 5m", "1d 4h". A negative age (the clock was
/// set back) keeps its sign.
std::string FormatAge(std::int64_t seconds);

/// The local time of day: "14:03:22".
std::string FormatClock(std::int64_t seconds_since_epoch);

/// Printable(text), shortened in the middle to `width` columns.
std::string FitWidth(std::string_view text, std::size_t width);

/// The terminal columns of Printable(text): two for wide (East Asian) characters, four for each
/// escaped byte, one for other characters.
std::size_t Columns(std::string_view text);

}  // namespace memleak
