// SPDX-License-Identifier: Apache-2.0
#include "tools/report/report_parser.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <utility>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/text_reader.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

constexpr std::string_view kFirstLine = "Native Heap MemLeak Tracker Version 2.0:\n";
constexpr std::string_view kJavaRule =
    "==============================Java-Native Stack==============================";
constexpr std::string_view kEnd = protocol::kReportEnd;
// Misspelled by the tracker.
constexpr std::string_view kUnknownFrame = "[unknow]";
// The lines of the head. Each occurs once.
constexpr std::string_view kTotalMark = "Total memory(bytes): ";
constexpr std::string_view kRecordsMark = "Allocation records: ";
constexpr std::string_view kDepthMark = "Backtrace size: ";
constexpr std::array kHeadMarks = {kTotalMark, kRecordsMark, kDepthMark};
constexpr std::string_view kOffsetMark = "+0x";
constexpr std::string_view kBacktraceMark = "bt ";
constexpr std::string_view kGroupMark = "sz ";

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

// "[NAME+0xHEX] ". The name may contain these characters too. It ends at the first offset that is
// followed by the end of a frame.
bool TakeFrame(Cursor* cursor, ReportFrame* frame) {
  const std::string_view text = cursor->Rest();
  for (std::size_t mark = text.find(kOffsetMark); mark != std::string_view::npos;
       mark = text.find(kOffsetMark, mark + 1)) {
    const std::size_t digits = mark + kOffsetMark.size();
    std::size_t end = digits;
    while (end < text.size() && IsHexDigit(text[end])) ++end;
    const bool closed = end > digits && text.substr(end, 2) == "] ";
    const bool last = closed && (end + 2 == text.size() || text[end + 2] == '[');
    if (!last) continue;
    frame->library = text.substr(1, mark - 1);
    const auto result = std::from_chars(&text[digits], text.data() + end, frame->offset, 16);
    cursor->Skip(end + 2);
    return result.ec == std::errc();
  }
  return false;
}

bool TakeFrames(Cursor* cursor, std::vector<ReportFrame>* frames) {
  while (!cursor->AtEnd()) {
    ReportFrame frame;
    if (cursor->Take(kUnknownFrame)) {
      frame.known = false;
    } else if (!cursor->Rest().starts_with('[') || !TakeFrame(cursor, &frame)) {
      return false;
    }
    frames->push_back(frame);
  }
  return true;
}

bool TakeSizes(Cursor* cursor, ReportGroup* group) {
  return cursor->Take(kGroupMark) && cursor->TakeNumber(&group->size) && cursor->Take(" ") &&
         cursor->TakeNumber(&group->total) && cursor->Take(" num ") &&
         cursor->TakeNumber(&group->count);
}

// "#00 rel_pc HEX NAME"
bool ParseJavaFrame(std::string_view line, ReportFrame* frame) {
  Cursor cursor(line);
  std::uint64_t number = 0;
  if (!cursor.Take("#") || !cursor.TakeNumber(&number) || !cursor.Take(" rel_pc ") ||
      !cursor.TakeNumber(&frame->offset, 16) || !cursor.Take(" ")) {
    return false;
  }
  frame->function = cursor.Rest();
  return true;
}

// Parses the line of a native group, to which the group refers. On failure sets `reason`.
bool ParseNativeLine(std::string_view line, ReportGroup* group, std::string* reason) {
  group->ages.clear();
  group->frames.clear();
  Cursor cursor(line);
  if (!TakeSizes(&cursor, group) || !cursor.Take(" time ")) {
    *reason = "sizes of a group unreadable";
    return false;
  }
  std::int64_t age = 0;
  while (cursor.TakeNumber(&age)) {
    group->ages.push_back(age);
    if (!cursor.Take(" ")) break;
  }
  cursor.Take(" ");
  if (!cursor.Take(kBacktraceMark)) {
    *reason = "ages of a group unreadable";
    return false;
  }
  if (!TakeFrames(&cursor, &group->frames)) {
    *reason = "frame unreadable: " + std::string(cursor.Rest().substr(0, 60));
    return false;
  }
  return true;
}

UserError CannotOpen(const std::string& path, int error) {
  std::string remedy = "name the file that memleak report printed";
  if (error == ENOENT) remedy = "check the path, or write a report with: memleak report PID";
  if (error == EACCES) remedy = "run memleak as the user who owns it, or as root";
  return {"cannot read report " + path + ": " + std::strerror(error), remedy};
}

/// The state of one pass over a report.
class ReportPass {
 public:
  ReportPass(const ReportSink& sink, ReportHeader* header) : sink_(sink), header_(header) {}

  /// Takes the next line without its newline; `closed` says whether it had one. Returns true for
  /// the last line of the report.
  bool Line(std::string_view line, bool closed) {
    ++number_;
    if (line == kEnd && !closed) {
      Finish(true);
      return true;
    }
    if (end_number_ != 0) Damaged(std::exchange(end_number_, 0), "\"END\" is not the last line");
    // Editors and copies from a terminal end the last line. The tracker does not.
    if (line == kEnd || (line.ends_with('\r') && line.substr(0, line.size() - 1) == kEnd)) {
      end_number_ = number_;
    } else if (!closed) {
      // A part of a line may parse as a line with fewer frames.
      Damaged("cut off");
    } else if (in_java_) {
      JavaLine(line);
    } else if (line == kJavaRule) {
      EndHead();
      in_java_ = true;
    } else if (line.starts_with(kGroupMark)) {
      EndHead();
      NativeLine(line);
    } else if (!line.empty()) {
      HeaderLine(line);
    }
    return false;
  }

  /// Whether the last line was an end mark with a newline.
  bool Ended() const { return end_number_ != 0; }

  /// Takes a line that is too long.
  void TooLong() {
    ++number_;
    end_number_ = 0;
    LoseJavaGroup();
    Damaged("longer than any line of a report");
  }

  /// Ends the report. Delivers the last Java-native group if the report is complete; it may lack
  /// frames otherwise.
  void Finish(bool complete) {
    EndHead();
    if (complete) Flush();
  }

 private:
  // A group without all its frames would count as another group.
  void LoseJavaGroup() {
    java_lost_ = in_java_;
    java_open_ = false;
  }

  void Flush() {
    if (java_open_ && sink_.group) sink_.group(java_);
    java_open_ = false;
    java_.frames.clear();
  }

  void Damaged(std::string reason) {
    if (!head_ended_) ++head_damage_;
    Damaged(number_, std::move(reason));
  }
  void Damaged(std::uint64_t number, std::string reason) {
    if (sink_.damaged) sink_.damaged({number, std::move(reason)});
  }

  void HeaderLine(std::string_view line) {
    Cursor cursor(line);
    const bool understood =
        (cursor.Take(kTotalMark) && cursor.TakeNumber(&header_->total_bytes)) ||
        (cursor.Take(kRecordsMark) && cursor.TakeNumber(&header_->groups) && cursor.Take("/") &&
         cursor.TakeNumber(&header_->listed)) ||
        (cursor.Take(kDepthMark) && cursor.TakeNumber(&header_->backtrace_size));
    if (!understood || !cursor.AtEnd()) return Damaged("not a line of a report");
    for (std::size_t i = 0; i < kHeadMarks.size(); ++i) {
      if (line.starts_with(kHeadMarks[i])) head_seen_[i] = true;
    }
  }

  // A missing line counts as damage, since its figures read as 0. A damaged line is reported
  // already.
  void EndHead() {
    if (std::exchange(head_ended_, true)) return;
    for (std::size_t i = 0; i < kHeadMarks.size(); ++i) {
      if (head_seen_[i]) continue;
      if (head_damage_ > 0) {
        --head_damage_;
      } else {
        Damaged(0, "no line \"" + std::string(kHeadMarks[i]) + "\" in the head");
      }
    }
  }

  void NativeLine(std::string_view line) {
    std::string reason;
    if (!ParseNativeLine(line, &native_, &reason)) return Damaged(std::move(reason));
    if (sink_.group) sink_.group(native_);
  }

  void JavaLine(std::string_view line) {
    if (line.starts_with(kGroupMark)) {
      Flush();
      Cursor cursor(line);
      java_open_ = TakeSizes(&cursor, &java_) && cursor.AtEnd();
      java_lost_ = !java_open_;
      if (java_lost_) Damaged("sizes of a Java-native group unreadable");
      return;
    }
    ReportFrame frame;
    const bool understood = ParseJavaFrame(line, &frame);
    // Skips the frames of a group that was left out.
    if (understood && java_lost_) return;
    if (!understood || !java_open_) {
      LoseJavaGroup();
      return Damaged("not a line of a Java-native group");
    }
    java_.frames.push_back(std::move(frame));
  }

  const ReportSink& sink_;
  ReportHeader* header_;
  std::uint64_t number_ = 1;
  std::array<bool, kHeadMarks.size()> head_seen_{};
  std::size_t head_damage_ = 0;  // damaged lines before the first group
  bool head_ended_ = false;
  std::uint64_t end_number_ = 0;  // of an end mark with a newline, if it is the last line so far
  bool in_java_ = false;
  bool java_open_ = false;  // java_ still takes frames
  bool java_lost_ = false;  // skips the frames of a group that was left out
  ReportGroup java_ = {.java = true};
  ReportGroup native_;  // kept for its capacity
};

}  // namespace

ReportEnd ReadReport(std::istream& input, const ReportSink& sink, ReportHeader* header) {
  *header = {};
  // Reads no more bytes than the first line has: other files may not have lines.
  std::string first(kFirstLine.size(), '\0');
  input.read(first.data(), static_cast<std::streamsize>(first.size()));
  if (input.gcount() != static_cast<std::streamsize>(first.size()) || first != kFirstLine) {
    return ReportEnd::kNotAReport;
  }
  ReportPass pass(sink, header);
  LineReader reader(input);
  std::string_view line;
  for (;;) {
    const LineEnd end = reader.Next(&line);
    if (end == LineEnd::kNothing) break;
    if (end == LineEnd::kTooLong) {
      pass.TooLong();
    } else if (pass.Line(line, end == LineEnd::kClosed)) {
      return ReportEnd::kComplete;
    }
  }
  pass.Finish(pass.Ended());
  return pass.Ended() ? ReportEnd::kComplete : ReportEnd::kTruncated;
}

ReportEnd ReadReportFile(const std::string& path, const ReportSink& sink, ReportHeader* header) {
  // Checks before opening: the open of a pipe may block.
  const RootedPath rooted(path);
  if (access(rooted.c_str(), F_OK) == 0 && !IsPlainFile(rooted.Text())) {
    throw UserError("cannot read report " + path + ": not a file",
                    "name the file that memleak report printed");
  }
  std::ifstream file(rooted.Text(), std::ios::binary);
  if (!file) throw CannotOpen(path, errno);
  const ReportEnd end = ReadReport(file, sink, header);
  if (end == ReportEnd::kNotAReport) {
    throw UserError("not a report: " + path + " (it does not begin with \"Native Heap MemLeak\")",
                    "name the file that memleak report printed");
  }
  return end;
}

}  // namespace memleak
