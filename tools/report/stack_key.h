// What makes a frame, a group and a call site of one report the same as those of another: libraries
// and functions on the stack, so that neither other addresses nor files moved meanwhile matter.
// Called by what compares reports; pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

/// The file name of a library's `path`, without what tells that the file was deleted since.
std::string_view LibraryName(std::string_view path);

/// `name` with bytes that are no UTF-8 as one sign, however many: a document has other ones in
/// their place.
std::string Comparable(std::string_view name);

/// For each frame of `profile` what tells it apart in every run: library and function; without a
/// function the place in the file, whose contents the build id names. No frames but equal ones have
/// equal keys.
std::vector<std::string> FrameKeys(const Profile& profile);

/// What tells the groups of a report apart: kind, size of a block, and the keys of the frames, of
/// which `frame_keys` holds those of all. Groups of several call sites, lines of one function, have
/// one key: add them up.
std::string GroupKey(const Group& group, const std::vector<std::string>& frame_keys);

/// What tells call sites with one GroupKey apart in reports of one process: their places in the
/// libraries, which the build id names.
std::string SiteKey(const Profile& profile, const Group& group);

}  // namespace memleak
