// SPDX-License-Identifier: Apache-2.0
// On Android the log shows the result. There is no state.
#include "platform/published_state.h"

namespace platform {

void FindLoader(void (* /*switch_off*/)(), void (* /*count*/)()) {}
void PublishCount(std::uint64_t /*records*/, std::uint64_t /*dropped*/) {}
void PublishRecording(const protocol::Kind& /*kind*/, protocol::Recording /*recording*/) {}
void PublishClear() {}
void PublishSettings(char /*type*/, std::uint32_t /*frames*/) {}
void PublishHook(const char* /*library*/, const char* /*function*/, int /*change*/, int /*error*/) {
}
void PublishReportStart() {}
void PublishReportThread() {}
void PublishReportFailure(int /*error*/, const char* /*format*/, ...) {}
void PublishReportEnd(std::uint64_t /*dropped*/) {}

}  // namespace platform
