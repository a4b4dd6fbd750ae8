// SPDX-License-Identifier: Apache-2.0
// Replaces the tracker's log for tests that do not link the platform. Keeps the lines for the test.
// log_capture.cpp defines the logger.
#pragma once

#include <string>
#include <vector>

/// Lines as "priority tag: text", oldest first.
inline std::vector<std::string>& LogLines() {
  static std::vector<std::string> lines;
  return lines;
}
