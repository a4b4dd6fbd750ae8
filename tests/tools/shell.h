// SPDX-License-Identifier: Apache-2.0
// Runs commands in a shell, for tests of whole commands.
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

/// The output of `command`, errors included, and its exit code; -1 if a signal ended it.
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

/// Runs `script` in `directory` while memleak runs `program` with `options` and `environment`. In
/// the script $M is memleak, $P the program's process id, and the file "out" has the program's
/// output. The program ends when its input ends.
inline Outcome WithProgram(const TemporaryDirectory& directory, const std::string& options,
                           const std::string& program, const std::string& script,
                           const std::string& environment = "") {
  return Shell("cd " + directory.Path("") + "; M=" MEMLEAK_PROGRAM "; mkfifo fifo; " + environment +
               " $M run --libdir " FIXTURE_LIBDIR " " + options + " -- " + program +
               " <fifo >out & P=$!; exec 3>fifo; until grep -qs ready out; do sleep 0.02; done; " +
               script + "\nexec 3>&-; wait $P; echo \"ended $?\"");
}

}  // namespace memleak
