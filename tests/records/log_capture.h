// SPDX-License-Identifier: Apache-2.0
// The tracker's log for tests that link a piece without the platform: lines are kept for the test.
// log_capture.cpp defines the logger.
#pragma once

#include <string>
#include <vector>

/// Lines as "priority tag: text", oldest first.
inline std::vector<std::string>& LogLines() {
  static std::vector<std::string> lines;
  return lines;
}
