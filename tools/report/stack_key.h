// What makes a group of one report of a process the same as a group of another: libraries and names
// on its stack, so that moved lines and files replaced meanwhile do not matter. Called by what
// follows groups; pure functions.
#pragma once

#include <string>
#include <string_view>

#include "tools/report/model.h"

namespace memleak {

/// The path of the library of `frame`, without what tells that the file was deleted since; empty
/// for none.
std::string_view LibraryPath(const Profile& profile, const Frame& frame);

/// The kind and the frames of `group` (a group of `profile`), innermost first, each as its library
/// and its function, or else its offset. Equal for equal stacks, and for no others; not for the
/// eye: NULs part the names, since a hostile name may hold anything else.
std::string StackKey(const Profile& profile, const Group& group);

/// The same with the size of a block: what tells the groups of a report apart. Calls from several
/// lines of one function are groups of their own in a report and have one key: add them up.
std::string GroupKey(const Profile& profile, const Group& group);

}  // namespace memleak
