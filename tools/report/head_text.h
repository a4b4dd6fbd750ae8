// SPDX-License-Identifier: Apache-2.0
// Texts about the process of a profile. Pure functions; any thread.
#pragma once

#include <string>

#include "tools/report/profile_parser.h"

namespace memleak {

/// The source of a profile, on one line: program, process, time and duration.
std::string ProcessText(const ProfileHead& head);

/// Why a report has no groups. `head` is that of its profile; null without one.
std::string NothingHeldText(const ProfileHead* head);

}  // namespace memleak
