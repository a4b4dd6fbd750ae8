// Figures and texts as people read them. Called by everything that prints; single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace memleak {

/// "512 B", "1.5 KiB", "12.0 MiB", ... up to EiB; one decimal above bytes.
std::string FormatBytes(std::uint64_t bytes);

/// "1,572,864".
std::string FormatCount(std::uint64_t count);

/// Seconds in at most two units: "8s", "3m 20s", "2h 5m", "1d 4h"; a negative age (the clock was
/// set back) keeps its sign.
std::string FormatAge(std::int64_t seconds);

/// A moment of today, local time: "14:03:22".
std::string FormatClock(std::int64_t seconds_since_epoch);

/// Printable(text), shortened in the middle to `width` columns.
std::string FitWidth(std::string_view text, std::size_t width);

/// Columns of a terminal that Printable(text) takes: two for wide characters, as those of East
/// Asia, four for each byte that is escaped, one for all others.
std::size_t Columns(std::string_view text);

}  // namespace memleak
