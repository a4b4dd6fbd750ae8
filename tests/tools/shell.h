// SPDX-License-Identifier: Apache-2.0
// Runs commands as a person would type them. For tests of whole commands.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "tests/temporary_directory.h"

namespace memleak {

struct Outcome {
  int code = -1;
  std::string output;
};

/// What `command` printed, errors included, and its exit code; -1 when a signal ended it.
inline Outcome Shell(const std::string& command) {
  Outcome outcome;
  FILE* pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "re");
  std::array<char, 4096> buffer{};
  std::size_t count = 0;
  do {
    count = std::fread(buffer.data(), 1, buffer.size(), pipe);
    outcome.output.append(buffer.data(), count);
  } while (count != 0);
  const int status = pclose(pipe);
  outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

/// Runs `script` in `directory` beside `program`, which memleak runs with `options` and
/// `environment`: $M is memleak, $P the program, whose output is in the file "out". It is ended by
/// the end of its input.
inline Outcome WithProgram(const TemporaryDirectory& directory, const std::string& options,
                           const std::string& program, const std::string& script,
                           const std::string& environment = "") {
  return Shell("cd " + directory.Path("") + "; M=" MEMLEAK_PROGRAM "; mkfifo fifo; " + environment +
               " $M run --libdir " FIXTURE_LIBDIR " " + options + " -- " + program +
               " <fifo >out & P=$!; exec 3>fifo; until grep -qs ready out; do sleep 0.02; done; " +
               script + "\nexec 3>&-; wait $P; echo \"ended $?\"");
}

}  // namespace memleak
