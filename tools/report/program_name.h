// SPDX-License-Identifier: Apache-2.0
// The name of a watched program for users. Single-threaded.
#pragma once

#include <string>

#include "tools/report/profile_parser.h"

namespace memleak {

/// The name that the program of `head` was started by if that is a name of its executable, else the
/// name of the executable: "redis-server" although it is a link to redis-check-rdb, but "postgres"
/// although a process calls itself "postgres: writer". Looks for the executable on this machine. If
/// it is not there, a name without blanks and colons counts.
std::string ProgramName(const ProfileHead& head);

}  // namespace memleak
