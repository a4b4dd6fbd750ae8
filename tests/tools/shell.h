// Runs a command as a person would type it. For tests of whole commands.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

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

}  // namespace memleak
