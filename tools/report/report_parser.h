// SPDX-License-Identifier: Apache-2.0
// Reads the text of a leak report. Used by the model and by `report`; single-threaded.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace memleak {

/// A frame. Of a Java-native group, it has an offset and a function.
struct ReportFrame {
  std::string_view library;   ///< name of the mapping, may be empty; refers to the line
  std::uint64_t offset = 0;   ///< bytes from the start of the mapping that holds the pc
  bool known = true;          ///< false for "[unknow]": the pc lay in no mapping
  std::string function = {};  ///< may be empty
};

/// Live blocks of one size with one backtrace.
struct ReportGroup {
  bool java = false;                     ///< with a Java-native stack, without ages
  std::uint64_t size = 0;                ///< bytes of one block
  std::uint64_t total = 0;               ///< bytes of all
  std::uint64_t count = 0;               ///< number of blocks
  std::vector<std::int64_t> ages = {};   ///< seconds, of at most 30 blocks with this stack
  std::vector<ReportFrame> frames = {};  ///< innermost first
};

/// The figures at the head of a report. They count all native groups, listed or not.
struct ReportHeader {
  std::uint64_t total_bytes = 0;
  std::uint64_t groups = 0;
  std::uint64_t listed = 0;  ///< groups that the tracker lists, at most 1000
  std::uint64_t backtrace_size = 0;
};

/// A line that could not be read, or is missing.
struct DamagedLine {
  std::uint64_t number = 0;  ///< counted from 1; 0 for a missing line of the head
  std::string reason;
};

/// Receives the pieces of a report. Members may be empty. Groups live as long as the call.
struct ReportSink {
  std::function<void(const ReportGroup&)> group;
  std::function<void(DamagedLine&&)> damaged;
};

enum class ReportEnd {
  kComplete,    ///< down to "END"
  kTruncated,   ///< the text stops earlier
  kNotAReport,  ///< the first line is not a report's; nothing was delivered
};

/// Reads a report from `input` in one pass, in memory of one group and one line. Fills `header`
/// with the figures of the head, 0 for missing or damaged lines. Delivers each damaged line and
/// each missing line of the head once. A Java-native group with a damaged line is not delivered,
/// nor is the last one of a truncated report.
ReportEnd ReadReport(std::istream& input, const ReportSink& sink, ReportHeader* header);

/// Reads the file at `path` the same way. Throws UserError if it cannot be read or is not a report.
ReportEnd ReadReportFile(const std::string& path, const ReportSink& sink, ReportHeader* header);

}  // namespace memleak
