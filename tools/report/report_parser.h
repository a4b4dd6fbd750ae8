// Reads the text of a leak report. Knows nothing of symbols or of printing. Called by the model and
// by `report`; single-threaded.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace memleak {

/// One frame of a native group.
struct ReportFrame {
  std::string_view library;  ///< name of the mapping, may be empty; a part of the line
  std::uint64_t offset = 0;  ///< bytes from the start of the mapping that holds the pc
  bool known = true;         ///< false for "[unknow]": the pc lay in no mapping
};

/// Live blocks of one size with one backtrace.
struct NativeGroup {
  std::uint64_t size = 0;           ///< bytes of one block
  std::uint64_t total = 0;          ///< bytes of all
  std::uint64_t count = 0;          ///< number of blocks
  std::vector<std::int64_t> ages;   ///< seconds, of at most 30 blocks with this stack
  std::vector<ReportFrame> frames;  ///< innermost first
};

/// One frame of a Java-native group.
struct JavaFrame {
  std::uint64_t rel_pc = 0;
  std::string function;  ///< may be empty
};

/// Live blocks whose stack was unwound in full.
struct JavaGroup {
  std::uint64_t size = 0;
  std::uint64_t total = 0;
  std::uint64_t count = 0;
  std::vector<JavaFrame> frames;  ///< innermost first
};

/// The figures at the head of a report. They count all groups, the ones not listed included.
struct ReportHeader {
  std::uint64_t total_bytes = 0;
  std::uint64_t groups = 0;
  std::uint64_t listed = 0;  ///< groups that the tracker set out to list (at most 1000)
  std::uint64_t backtrace_size = 0;
};

/// A line that could not be read and was left out, or that is not there at all.
struct DamagedLine {
  std::uint64_t number = 0;  ///< counted from 1; 0 for a line of the head that is missing
  std::string reason;
};

/// Receives a report piece by piece; a member that is not set drops its pieces. Groups live as long
/// as the call.
struct ReportSink {
  std::function<void(const NativeGroup&)> native;
  std::function<void(const JavaGroup&)> java;
  std::function<void(DamagedLine&&)> damaged;
};

/// How reading ended.
enum class ReportEnd {
  kComplete,    ///< down to "END"
  kTruncated,   ///< the text stops earlier
  kNotAReport,  ///< the first line is not a report's; nothing was delivered
};

/// No line of a report is longer: the deepest stack of long names takes less. What is longer is
/// damaged, and left out without being held in memory.
inline constexpr std::size_t kLongestLine = 64U << 20U;

/// Reads a report from `input` in one pass, in memory of one group and one line; fills `header`
/// with what the head says (0 for lines that are missing or damaged). Every damaged line is
/// announced once, and so is every line that the head lacks; a Java-native group goes with any of
/// its lines, and so does the last one of a text that stops early.
ReportEnd ReadReport(std::istream& input, const ReportSink& sink, ReportHeader* header);

/// Reads the file at `path` the same way. Throws UserError when it cannot be read or is not a
/// report, so that the result is either of the other two.
ReportEnd ReadReportFile(const std::string& path, const ReportSink& sink, ReportHeader* header);

/// Parses a native group's line without its newline; the group refers to `line`. On failure returns
/// false and sets `reason`.
bool ParseNativeLine(std::string_view line, NativeGroup* group, std::string* reason);

}  // namespace memleak
