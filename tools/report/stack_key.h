// What makes a group of one report the same as a group of another: the names on its stack, so that
// address-space randomization, moved lines and rebuilt files do not matter. Called by what compares
// reports; pure functions.
#pragma once

#include <string>

#include "tools/report/model.h"

namespace memleak {

/// The kind and the names of the frames of `group` (a group of `profile`), innermost first, each as
/// FrameName gives it. Equal for equal stacks, and for no others; not for the eye: NULs part the
/// names, since a hostile name may hold anything else.
std::string StackKey(const Profile& profile, const Group& group);

/// The same with the size of a block: what tells the groups of a report apart. Calls from several
/// lines of one function are groups of their own in a report and have one key: add them up.
std::string GroupKey(const Profile& profile, const Group& group);

}  // namespace memleak
