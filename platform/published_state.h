// SPDX-License-Identifier: Apache-2.0
// Writes the tracker's part of protocol::State, which the controller reads.
//
// On Linux the loader owns the state. Without a loader, and on Android, these functions do nothing.
// They allocate nothing, take no lock and keep errno. Unless stated otherwise, only the handler of
// the control signal calls them, one at a time.
#pragma once

#include <cstdint>

#include "protocol/kinds.h"

namespace protocol {
enum class Recording : std::uint32_t;
}

namespace platform {

/// Finds the loader's variables, and sets the functions for protocol::kSwitchOff and
/// protocol::kRecordCounter. From track_initialize. Takes the dynamic linker's lock.
void FindLoader(void (*switch_off)(), void (*count)());
/// Publishes the number of live records, and of blocks that were not recorded for lack of memory.
void PublishCount(std::uint64_t records, std::uint64_t dropped);

/// Publishes that recording of `kind` was switched to `recording`. The hooked kinds share their
/// switches: a pause or stop of one of them applies to all hooked kinds that are on or paused.
void PublishRecording(const protocol::Kind& kind, protocol::Recording recording);
/// Publishes that the records of all kinds were dropped.
void PublishClear();
/// Publishes the backtrace type, and the size in frames.
void PublishSettings(char type, std::uint32_t frames);
/// Publishes the result of hooking (`change` 1) or unhooking (`change` -1) a function: `error` is 0
/// or an errno value.
void PublishHook(const char* library, const char* function, int change, int error);

/// Publishes that a report was requested. PublishReportEnd follows, on any thread.
void PublishReportStart();
/// Publishes the id of the calling thread, which is about to write the report.
void PublishReportThread();
/// Publishes why the current report is not complete: an errno value, and a printf-style text.
/// Called before PublishReportEnd, on any thread. Only the first call for a report has an effect.
__attribute__((format(printf, 2, 3))) void PublishReportFailure(int error, const char* format, ...);
/// Publishes that the report has ended. `dropped` is the number of blocks that were not recorded
/// for lack of memory. Any thread.
void PublishReportEnd(std::uint64_t dropped);

}  // namespace platform
