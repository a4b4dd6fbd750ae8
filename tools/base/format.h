// SPDX-License-Identifier: Apache-2.0
// Human-readable numbers, times and texts. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace memleak {

/// "512 B", "1.5 KiB", "12.0 MiB", ... up to EiB; one decimal above bytes.
std::string FormatBytes(std::uint64_t bytes);

/// "1.5 KiB", or "100 B to 1.5 KiB".
std::string FormatSizes(std::uint64_t smallest, std::uint64_t largest);

/// "+1.5 KiB", "-3 B", "+0 B".
std::string FormatGrowth(double bytes);

/// "1,572,864".
std::string FormatCount(std::uint64_t count);

/// "1 block", "1,234 blocks".
std::string Counted(std::uint64_t count, const std::string& noun);

/// `part` of `whole` as "51.2 %"; empty if `whole` is 0.
std::string Percent(std::uint64_t part, std::uint64_t whole);

/// Seconds in at most two units: "8s", "3m 20s", "2h 5m", "1d 4h". A negative age (the clock was
/// set back) keeps its sign.
std::string FormatAge(std::int64_t seconds);

/// The local time of day: "14:03:22"; with the day: "2026-11-22 14:03:22".
std::string FormatClock(std::int64_t seconds_since_epoch);
std::string FormatDate(std::int64_t seconds_since_epoch);

/// Printable(text), shortened in the middle to `width` columns.
std::string FitWidth(std::string_view text, std::size_t width);

/// The terminal columns of Printable(text): two for wide (East Asian) characters, four for each
/// escaped byte, one for other characters.
std::size_t Columns(std::string_view text);

/// The columns of the terminal that is standard output; 80 without one, and at least.
std::size_t OutputColumns();

/// `text` padded on the left to `width` columns.
std::string Right(const std::string& text, std::size_t width);

/// `first` and `second` with a blank between them if they fit into one line, else on two lines, the
/// second one indented by two.
std::string OneLineOrTwo(const std::string& first, const std::string& second);

}  // namespace memleak
