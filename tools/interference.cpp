// Command words in the tracker's log.
#include "tools/interference.h"

#include <charconv>
#include <cstdint>
#include <ctime>
#include <optional>
#include <sstream>
#include <string_view>

#include "tools/control.h"
#include "tools/format.h"
#include "tools/kinds.h"
#include "tools/log_tail.h"
#include "tools/root_directory.h"

namespace memleak {
namespace {

struct Effect {
  std::uint64_t words;  // any of these
  const char* text;
};

// What loses most stands first: a word may have several effects.
std::vector<Effect> Effects() {
  Effect clear{kFdClear, "its tables were emptied"};
  // These make another kind the one by which blocks are looked up.
  Effect other{0, "it was told to record another kind of memory"};
  for (const KindInfo& info : AllKinds()) {
    clear.words |= info.clear;
    if (info.kind != Kind::kNative) other.words |= info.on;
    if (info.kind == Kind::kMmap) other.words |= info.pause | info.report;
  }
  return {{kNativeReport, "recording was stopped by a report"},
          clear,
          {kNativePause, "recording was paused"},
          other};
}

// A line starts with seconds since the epoch.
std::string TimeOf(const std::string& line) {
  std::time_t time = 0;
  std::from_chars(line.data(), line.data() + line.size(), time);
  return time == 0 ? "" : " at " + FormatClock(time);
}

}  // namespace

std::string FindInterference(const std::vector<std::string>& lines) {
  const std::vector<Effect> effects = Effects();
  for (const std::string& line : lines) {
    const std::uint64_t word = ReceivedWord(line);
    for (const Effect& effect : effects) {
      if ((word & effect.words) == 0) continue;
      std::ostringstream text;
      text << effect.text << " (command 0x" << std::hex << word << TimeOf(line) << ")";
      return text.str();
    }
  }
  return "";
}

Recording RecordingOf(const ProcessInfo& process) {
  const std::optional<std::string> own = OwnLog(process);
  if (!own) return Recording::kUnknown;
  const Recording state = RecordingFromLog(*own);
  const bool shared = state == Recording::kNever &&
                      RecordingFromLog(ReadTextFile(process.log).value_or("")) != state;
  return shared ? Recording::kUnknown : state;
}

}  // namespace memleak
