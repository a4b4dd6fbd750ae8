// SPDX-License-Identifier: Apache-2.0
#include "tools/report/head_text.h"

#include "tools/base/format.h"

namespace memleak {

std::string ProcessText(const ProfileHead& head) {
  return FitWidth(head.name, 40) + " (pid " + std::to_string(head.pid) + " on " +
         FitWidth(head.host, 20) + "), " + FormatDate(head.written) + ", " +
         (head.kinds.empty() ? "recording was off"
                             : "recorded for " + FormatAge(head.written - head.since));
}

std::string NothingHeldText(const ProfileHead* head) {
  if (head == nullptr) return "nothing recorded is still held; was recording on? (memleak on PID)";
  if (head->since == 0) return "recording was never on; switch it on with: memleak on PID";
  const std::string since = FormatDate(head->since);
  return head->kinds.empty()
             ? "records were dropped at " + since + ", and recording has not been on since"
             : "recording since " + since + ", nothing recorded is still held";
}

}  // namespace memleak
