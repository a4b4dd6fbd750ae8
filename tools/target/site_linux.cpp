// SPDX-License-Identifier: Apache-2.0
// Programs under the loader. Their state file names their other files.
#include "protocol/protocol.h"
#include "tools/target/find_state.h"
#include "tools/target/root_directory.h"
#include "tools/target/site.h"

namespace memleak {

const std::uint32_t kDefaultDepth = protocol::kDefaultDepthOnLinux;

void FindPlaces(std::string_view maps, ProcessInfo* process) {
  FindState(maps, process);
}

StoredSettings ReadSettings(const ProcessInfo& process) {
  const AsUserOf user(process);
  if (const auto text = ReadProperties(process.root)) {
    return {*text, process.PropertiesPath(), false};
  }
  // A process without its own file reads the shared one. Its own file will hide the shared one, and
  // so starts as a copy.
  const std::string& shared = process.shared_properties;
  if (const auto text = ReadTextFile(shared)) return {*text, shared, false};
  return {"", "", process.root != "/"};
}

void WriteSettings(const ProcessInfo& process, const std::string& text) {
  const AsUserOf user(process);
  WriteProperties(process.root, text);
}

const SiteAdvice& Advice() {
  static constexpr SiteAdvice kAdvice = {"pgrep -a NAME",
                                         "run memleak as the user who owns it, or as root",
                                         "with: memleak run -- PROGRAM",
                                         "memleak attach ",
                                         "start it with: memleak run --report-at-exit",
                                         nullptr,
                                         ""};
  return kAdvice;
}

}  // namespace memleak
