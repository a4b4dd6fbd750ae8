// SPDX-License-Identifier: Apache-2.0
#include "tools/report/profile_parser.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <utility>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/text_reader.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

// The last name of the profile's path.
constexpr std::string_view kProfileName = "profile";
// A guard against absurd heads. The tracker writes ten.
constexpr std::size_t kMaxAgeBounds = 64;

// "a\x20b" as "a b". Returns nothing for a word that is not valid.
std::optional<std::string> Unescape(std::string_view word) {
  std::string text;
  while (!word.empty()) {
    const std::size_t mark = word.find('\\');
    text += word.substr(0, mark);
    if (mark == std::string_view::npos) break;
    Cursor digits(word.substr(mark));
    unsigned byte = 0;
    const bool valid = digits.Take("\\x") && digits.Rest().size() >= 2 &&
                       Cursor(digits.Rest().substr(0, 2)).TakeNumber(&byte, 16);
    if (!valid) return std::nullopt;
    text += static_cast<char>(byte);
    word.remove_prefix(mark + 4);
  }
  return text;
}

// Takes the first line. Returns whether it is that of a profile.
bool TakeMark(std::istream& input) {
  std::string line(std::string_view(protocol::kProfileMark).size() + 1, '\0');
  input.read(line.data(), static_cast<std::streamsize>(line.size()));
  return line == std::string(protocol::kProfileMark) + "\n";
}

/// The state of one pass over a profile.
class ProfilePass {
 public:
  ProfilePass(const ProfileSink& sink, ProfileHead* head) : sink_(sink), head_(head) {}

  /// Takes the next line. Returns true for the end line.
  bool Line(std::string_view line) {
    ++number_;
    Cursor cursor(line);
    if (cursor.Take("end ")) {
      std::uint64_t count = 0;
      complete_ = cursor.TakeNumber(&count) && cursor.AtEnd() && count <= stacks_;
      return true;
    }
    if (cursor.Take("s ")) {
      ++stacks_;
      // Later stacks refer to the frames of a damaged one.
      stack_is_known_ = TakeStack(cursor);
      if (!stack_is_known_) {
        Damaged("stack unreadable");
      } else if (sink_.stack) {
        sink_.stack(stack_);
      }
    } else if (cursor.Take("f ")) {
      ProfileFrame frame;
      if (!TakeFrame(cursor, &frame)) Damaged("frame unreadable");
      ++frames_;  // damaged ones are counted, too
      if (sink_.frame) sink_.frame(frame);
    } else if (cursor.Take("object ") || cursor.Take("closed ")) {
      ProfileObject object;
      if (!TakeObject(cursor, &object)) {
        Damaged("object unreadable");
        object = {};
      }
      ++objects_;
      if (sink_.object) sink_.object(object);
    } else if (!TakeHead(cursor)) {
      Damaged("not a line of a profile");
    }
    return false;
  }

  void TooLong() {
    ++number_;
    stack_is_known_ = false;
    Damaged("longer than any line of a profile");
  }

  bool complete() const { return complete_; }

 private:
  void Damaged(std::string reason) {
    if (sink_.damaged) sink_.damaged({number_, std::move(reason)});
  }

  static bool TakeWord(Cursor& cursor, std::string* word) {
    const std::optional<std::string> text = Unescape(cursor.TakeUntil(' '));
    if (text) *word = *text;
    return text.has_value();
  }

  // An empty word is written as "\".
  static bool TakeWords(Cursor& cursor, std::vector<std::string>* words) {
    words->clear();
    while (cursor.Take(" ")) {
      const std::string_view rest = cursor.Rest();
      const std::string_view word = rest.substr(0, rest.find(' '));
      cursor.Skip(word.size());
      const std::optional<std::string> text = word == "\\" ? "" : Unescape(word);
      if (!text) return false;
      words->push_back(*text);
    }
    return cursor.AtEnd();
  }

  bool TakeHead(Cursor cursor) {
    const std::string_view line = cursor.Rest();
    const std::string_view name = line.substr(0, line.find(' '));
    cursor.Skip(name.size());
    if (name == "arguments") return TakeWords(cursor, &head_->arguments);
    if (name == "kinds") return TakeWords(cursor, &head_->kinds);
    if (name == "ages") return TakeAges(cursor);
    if (!cursor.Take(" ")) return false;
    const auto word = [&](std::string* value) { return TakeWord(cursor, value) && cursor.AtEnd(); };
    const auto number = [&](auto* value) { return cursor.TakeNumber(value) && cursor.AtEnd(); };
    if (name == "library") return word(&head_->library);
    if (name == "program") return word(&head_->program);
    if (name == "host") return word(&head_->host);
    if (name == "unwind") return word(&head_->unwind);
    if (name == "pid") return number(&head_->pid);
    if (name == "started") return number(&head_->started);
    if (name == "written") return number(&head_->written);
    if (name == "since") return number(&head_->since);
    if (name == "depth") return number(&head_->depth);
    if (name == "unrecorded") return number(&head_->unrecorded);
    return name == "report" && cursor.TakeNumber(&head_->report_bytes) && cursor.Take(" ") &&
           cursor.TakeNumber(&head_->report_digest, 16) && cursor.AtEnd();
  }

  bool TakeAges(Cursor cursor) {
    std::vector<std::int64_t> bounds;
    std::int64_t bound = 0;
    while (cursor.Take(" ")) {
      if (!cursor.TakeNumber(&bound) || bounds.size() == kMaxAgeBounds) return false;
      bounds.push_back(bound);
    }
    if (!cursor.AtEnd() || bounds.empty() || bounds.front() != 0 ||
        !std::is_sorted(bounds.begin(), bounds.end())) {
      return false;
    }
    head_->age_bounds = std::move(bounds);
    return true;
  }

  static bool TakeObject(Cursor cursor, ProfileObject* object) {
    if (!cursor.TakeNumber(&object->bias, 16) || !cursor.Take(" ")) return false;
    const std::string_view build_id = cursor.TakeUntil(' ');
    if (build_id != "-") object->build_id = build_id;
    if (build_id.empty() ||
        object->build_id.find_first_not_of("0123456789abcdef") != std::string::npos) {
      return false;
    }
    for (;;) {
      Cursor at = cursor;
      ProfileObject::Segment segment;
      const bool is_segment = at.TakeNumber(&segment.begin, 16) && at.Take("-") &&
                              at.TakeNumber(&segment.end, 16) && at.Take("@") &&
                              at.TakeNumber(&segment.offset, 16) && at.Take(" ");
      if (!is_segment) break;
      object->segments.push_back(segment);
      cursor = at;
    }
    return TakeWord(cursor, &object->path) && cursor.AtEnd();
  }

  bool TakeFrame(Cursor cursor, ProfileFrame* frame) const {
    ProfileFrame taken;
    if (!cursor.TakeNumber(&taken.object) || taken.object > objects_ || !cursor.Take(" ") ||
        !cursor.TakeNumber(&taken.pc, 16) || !cursor.AtEnd()) {
      return false;
    }
    *frame = taken;
    return true;
  }

  bool TakeStack(Cursor cursor) {
    std::uint64_t shared = 0;
    const bool figures = cursor.TakeNumber(&stack_.bytes) && cursor.Take(" ") &&
                         cursor.TakeNumber(&stack_.blocks) && cursor.Take(" ") &&
                         cursor.TakeNumber(&stack_.min_size) && cursor.Take(" ") &&
                         cursor.TakeNumber(&stack_.max_size) && cursor.Take(" ") &&
                         cursor.TakeNumber(&stack_.youngest) && cursor.Take(" ") &&
                         cursor.TakeNumber(&stack_.oldest) && cursor.Take(" ") &&
                         TakeCounts(cursor) && cursor.Take(" ") && cursor.TakeNumber(&shared);
    const std::vector<std::uint32_t>& before = stack_.frames;
    if (!figures || (shared != 0 && !stack_is_known_) || shared > before.size()) return false;
    own_.clear();
    while (cursor.Take(" ")) {
      std::uint32_t number = 0;
      if (!cursor.TakeNumber(&number, 16) || number == 0 || number > frames_) return false;
      own_.push_back(number - 1);
      if (own_.size() + shared > kMaxStackFrames) return false;
    }
    if (!cursor.AtEnd()) return false;
    own_.insert(own_.end(), before.end() - static_cast<std::ptrdiff_t>(shared), before.end());
    std::swap(stack_.frames, own_);
    return true;
  }

  bool TakeCounts(Cursor& cursor) {
    stack_.ages.assign(std::max<std::size_t>(head_->age_bounds.size(), 1), 0);
    do {
      std::size_t index = 0;
      if (!cursor.TakeNumber(&index) || index >= stack_.ages.size() || !cursor.Take(":") ||
          !cursor.TakeNumber(&stack_.ages[index])) {
        return false;
      }
    } while (cursor.Take(","));
    return true;
  }

  const ProfileSink& sink_;
  ProfileHead* head_;
  std::uint64_t number_ = 1;
  std::uint64_t objects_ = 0;
  std::uint64_t frames_ = 0;
  std::uint64_t stacks_ = 0;
  bool stack_is_known_ = false;  // stack_ has the frames of the line before
  bool complete_ = false;
  ProfileStack stack_;
  std::vector<std::uint32_t> own_;
};

}  // namespace

ReportEnd ReadProfile(std::istream& input, const ProfileSink& sink, ProfileHead* head) {
  *head = {};
  if (!TakeMark(input)) return ReportEnd::kNotAReport;
  ProfilePass pass(sink, head);
  LineReader reader(input);
  std::string_view line;
  for (;;) {
    const LineEnd end = reader.Next(&line);
    if (end == LineEnd::kTooLong) {
      pass.TooLong();
    } else if (end != LineEnd::kClosed || pass.Line(line)) {
      break;  // a part of a line may parse as another line
    }
  }
  return pass.complete() ? ReportEnd::kComplete : ReportEnd::kTruncated;
}

ReportEnd ReadProfileFile(const std::string& path, const ProfileSink& sink, ProfileHead* head) {
  std::ifstream file(RootedPath(path).Text(), std::ios::binary);
  const ReportEnd end = file ? ReadProfile(file, sink, head) : ReportEnd::kNotAReport;
  if (end == ReportEnd::kNotAReport) {
    throw UserError("cannot read profile " + path, "check the path, or run memleak as its owner");
  }
  return end;
}

bool IsProfile(const std::string& path) {
  // The open of a pipe may block.
  if (!IsPlainFile(path)) return false;
  std::ifstream file(RootedPath(path).Text(), std::ios::binary);
  return TakeMark(file);
}

ProfileHead ReadProfileHead(const std::string& path) {
  ProfileHead head;
  std::ifstream file(RootedPath(path).Text(), std::ios::binary);
  std::string start(64U << 10U, '\0');  // the head is shorter
  file.read(start.data(), static_cast<std::streamsize>(start.size()));
  start.resize(static_cast<std::size_t>(file.gcount()));
  const ProfileSink no_sink;
  ProfilePass pass(no_sink, &head);
  Cursor lines(start);
  lines.TakeUntil('\n');
  while (!lines.AtEnd() && !lines.Rest().starts_with("object ")) pass.Line(lines.TakeUntil('\n'));
  return head;
}

std::string ProfileBeside(const std::string& report, bool* other) {
  const std::string name = LastPart(report);
  const std::string path =
      report.substr(0, report.size() - name.size()) + std::string(kProfileName);
  *other = false;
  if (name == kProfileName || !IsProfile(path)) return "";
  const ProfileHead head = ReadProfileHead(path);
  std::ifstream text(RootedPath(report).Text(), std::ios::binary);
  std::uint64_t bytes = 0;
  std::uint64_t digest = protocol::kDigestStart;
  std::vector<char> piece(64U << 10U);
  while (text.read(piece.data(), static_cast<std::streamsize>(piece.size())), text.gcount() > 0) {
    const auto count = static_cast<std::size_t>(text.gcount());
    bytes += count;
    digest = protocol::Digest({piece.data(), count}, digest);
  }
  *other = bytes != head.report_bytes || digest != head.report_digest;
  return *other ? "" : path;
}

}  // namespace memleak
