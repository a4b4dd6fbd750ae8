// SPDX-License-Identifier: Apache-2.0
// Each function adds a command to the program: its options, help and action.
#pragma once

#include "tools/commands/command_line.h"

namespace memleak {

void AddRun(Program* program);
void AddOn(Program* program);
void AddPause(Program* program);
void AddReport(Program* program);
void AddClear(Program* program);
void AddLibs(Program* program);
void AddFd(Program* program);
void AddSend(Program* program);
void AddStatus(Program* program);
void AddShow(Program* program);
void AddWatch(Program* program);
void AddHtml(Program* program);
void AddDiff(Program* program);
void AddExport(Program* program);

}  // namespace memleak
