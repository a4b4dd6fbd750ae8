// run: becomes a program under the tracker.
#include <unistd.h>

#include <iostream>

#include "tools/commands/commands.h"
#include "tools/target/launcher.h"

namespace memleak {

int RunCommand(const RunOptions& options) {
  const LaunchPlan plan = PlanLaunch(options);
  // The program's own output is not touched; a person at a terminal gets to know the PID.
  if (isatty(STDERR_FILENO) == 1) {
    std::cerr << "memleak: process " << getpid() << ", root directory " << plan.root << std::endl;
  }
  if (!plan.note.empty()) std::cerr << "memleak: " << plan.note << std::endl;
  Launch(plan);
}

}  // namespace memleak
