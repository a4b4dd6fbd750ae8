// SPDX-License-Identifier: Apache-2.0
// What the tracker tells the controller about itself: its part of protocol::State.
//
// On Linux the loader owns the state. Without a loader, and on Android, the functions do nothing.
// None allocates or takes a lock. All keep errno. Unless stated otherwise, only the handler of the
// control signal calls them, one at a time.
#pragma once

#include <cstdint>

#include "protocol/kinds.h"

namespace protocol {
enum class Recording : std::uint32_t;
}

namespace platform {

/// Finds the loader's variables. From track_initialize; takes the dynamic linker's lock.
/// `switch_off` does what protocol::kSwitchOff describes, `count` what protocol::CountRecords does.
void FindLoader(void (*switch_off)(), void (*count)());
/// The number of live records, and of blocks that were not recorded for lack of memory.
void PublishCount(std::uint64_t records, std::uint64_t dropped);

/// The kind is switched, or its records are dropped. The hooked kinds share their switches: a
/// command to one that is not "on" applies to all that are recorded.
void PublishRecording(const protocol::Kind& kind, protocol::Recording recording);
/// The records are dropped.
void PublishClear();
/// The backtrace type and size in force.
void PublishSettings(char type, std::uint32_t frames);
/// The result of hooking (`change` 1) or unhooking (-1) a function: 0 or an errno value.
void PublishHook(const char* library, const char* function, int change, int error);

/// A report is requested. PublishReportEnd follows, on any thread.
void PublishReportStart();
/// On the thread that writes the report: its id, before the report is written.
void PublishReportThread();
/// Why the current report is not complete: an errno value, and what failed. Call it before
/// PublishReportEnd; the first call for a report counts.
__attribute__((format(printf, 2, 3))) void PublishReportFailure(int error, const char* format, ...);
/// The report has ended. `dropped` blocks were not recorded for lack of memory.
void PublishReportEnd(std::uint64_t dropped);

}  // namespace platform
