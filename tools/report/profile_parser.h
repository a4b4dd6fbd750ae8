// SPDX-License-Identifier: Apache-2.0
// Reads the profile that a process on Linux writes beside its report (docs/profile-format.md).
// Single-threaded.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "tools/report/report_parser.h"

namespace memleak {

/// What the head says about the process. Times are in seconds since the epoch.
struct ProfileHead {
  std::string library;  ///< version of the tracker
  std::string program;  ///< path
  std::string name;     ///< of the program, for users; set by LoadProfile and LoadDocument
  std::vector<std::string> arguments = {};
  std::int64_t pid = 0;
  std::string host;
  std::int64_t started = 0;
  std::int64_t written = 0;
  std::int64_t since = 0;  ///< recording began, or the records were last cleared
  std::vector<std::string> kinds = {};
  std::string unwind;
  std::uint64_t depth = 0;
  std::uint64_t unrecorded = 0;    ///< blocks that are missing for lack of memory
  std::uint64_t report_bytes = 0;  ///< of the report of the same request
  std::uint64_t report_digest = 0;
  std::vector<std::int64_t> age_bounds = {};  ///< seconds, ascending; the first is 0
};

struct ProfileObject {
  struct Segment {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint64_t offset = 0;  ///< in the file
  };
  std::uint64_t bias = 0;  ///< address in memory minus address in the file
  std::string build_id;    ///< empty if unknown
  std::vector<Segment> segments = {};
  std::string path;  ///< may be empty
};

struct ProfileFrame {
  std::uint64_t object = 0;  ///< counted from 1; 0 for none
  std::uint64_t pc = 0;
};

struct ProfileStack {
  std::uint64_t bytes = 0;
  std::uint64_t blocks = 0;
  std::uint64_t min_size = 0;
  std::uint64_t max_size = 0;
  std::int64_t youngest = 0;  ///< seconds
  std::int64_t oldest = 0;
  std::vector<std::uint64_t> ages = {};    ///< blocks, by index in ProfileHead::age_bounds
  std::vector<std::uint32_t> frames = {};  ///< indices of delivered frames, innermost first
};

/// The most frames of a stack. The tracker captures no more.
inline constexpr std::size_t kMaxStackFrames = 1024;

/// Receives the pieces of a profile. Members may be empty. Pieces live as long as the call.
struct ProfileSink {
  std::function<void(const ProfileObject&)> object;
  std::function<void(const ProfileFrame&)> frame;  ///< a damaged line delivers an empty frame
  std::function<void(const ProfileStack&)> stack;
  std::function<void(DamagedLine&&)> damaged;
};

/// Reads a profile from `input` in one pass, in memory of one line and one stack. kTruncated: there
/// is no end line, or it counts more stacks than there are.
ReportEnd ReadProfile(std::istream& input, const ProfileSink& sink, ProfileHead* head);

/// Reads the file at `path`. Throws UserError if it cannot be read or is not a profile.
ReportEnd ReadProfileFile(const std::string& path, const ProfileSink& sink, ProfileHead* head);

/// Whether the file at `path` starts like a profile.
bool IsProfile(const std::string& path);

/// The head of the profile at `path`, as far as it can be read. The rest is not read.
ProfileHead ReadProfileHead(const std::string& path);

/// The path of the profile beside the report at `report`. Empty if there is none. Sets `*other` if
/// it is of another request, and then returns an empty path, too.
std::string ProfileBeside(const std::string& report, bool* other);

}  // namespace memleak
