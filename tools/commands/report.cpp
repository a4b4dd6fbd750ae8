// SPDX-License-Identifier: Apache-2.0
// report: makes a process write its report.
#include <chrono>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <string>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/on.h"
#include "tools/commands/options.h"
#include "tools/report/head_text.h"
#include "tools/report/profile_parser.h"
#include "tools/report/report_parser.h"
#include "tools/target/inspect.h"
#include "tools/target/recording.h"
#include "tools/target/send_command.h"
#include "tools/target/site.h"
#include "tools/target/take_report.h"

namespace memleak {
namespace {

constexpr const char* kReportHostIntro = R"(
Stops recording, makes the process write its report, waits until the report is
complete and prints its path. An existing report is renamed to
allocations_dump.old.
)";

constexpr const char* kReportDeviceIntro = R"(
Stops recording, makes the process write /data/log/reliability/allocations_dump,
waits until the report is complete and prints how to fetch it. The directory
must exist, and the process must have permission to write there. An existing
report, of any process, is renamed to allocations_dump.old.
)";

constexpr const char* kHooksAndExamples = R"(
With --kind, the hooks of the latest `memleak on` are removed. Hooks of earlier
ones remain and record nothing; they are listed.

With --keep-recording, recording of the native heap continues and misses no
free, so that successive reports can be compared. Other kinds cannot continue,
because their report removes the hooks.

Examples:
  memleak report 4711
  memleak report 4711 --keep-recording
  memleak report 4711 --timeout 300
  memleak report 4711 --kind mmap)";

struct ReportOptions {
  pid_t pid = 0;
  const Kind* kind = &protocol::kNative;
  std::uint32_t timeout_s = 60;  ///< 0: wait forever
  bool keep_recording = false;   ///< native heap only
};

// Prints how many stacks a report has. Returns their bytes.
std::uint64_t PrintGroups(const std::string& path) {
  ReportHeader header;
  ReadReportFile(path, {}, &header);
  std::cout << "stacks  " << FormatCount(header.groups);
  if (header.listed < header.groups) {
    std::cout << " (the largest " << header.listed << " are listed)";
  }
  if (header.groups == 0) std::cout << "\n        " << NothingHeldText(nullptr);
  std::cout << "\n";
  return header.total_bytes;
}

// Prints since when a profile has blocks, and how many blocks and stacks. Returns their bytes.
std::uint64_t PrintStacks(const std::string& path, const std::string& shown) {
  std::uint64_t stacks = 0;
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;
  ProfileSink sink;
  sink.stack = [&](const ProfileStack& stack) {
    ++stacks;
    blocks += stack.blocks;
    bytes += stack.bytes;
  };
  ProfileHead head;
  ReadProfileFile(path, sink, &head);
  std::cout << "profile " << shown << "\n";
  if (!head.kinds.empty()) {
    std::cout << "since   " << FormatClock(head.since) << " ("
              << FormatAge(std::time(nullptr) - head.since) << ")\n";
  }
  std::cout << "blocks  " << FormatCount(blocks) << " from " << Counted(stacks, "call stack");
  if (stacks == 0) std::cout << "\n        " << NothingHeldText(&head);
  std::cout << "\n";
  return bytes;
}

int Report(const ReportOptions& options) {
  if (options.keep_recording && !options.kind->IsNative()) {
    throw UserError(std::string("--keep-recording does not work with --kind ") +
                        options.kind->name + ": its report removes the hooks",
                    "omit one of them");
  }
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseMixedKinds(process, *options.kind);
  const std::uint64_t word =
      options.keep_recording ? protocol::kReportKeepRecording : options.kind->Report();
  const std::chrono::milliseconds took =
      TakeReport(process, word, options.timeout_s, OldReport::kRename);
  const std::string path = process.ReportPath();

  std::cout << "report  " << process.Shown(path) << "\n";
  bool other = false;
  const std::string profile = ProfileBeside(path, &other);
  const std::uint64_t bytes =
      profile.empty() ? PrintGroups(path) : PrintStacks(profile, process.Shown(profile));
  std::cout << "bytes   " << FormatCount(bytes) << " (" << FormatBytes(bytes) << ")\n"
            << "took    " << FormatDuration(took) << "\n";
  if (Advice().fetch != nullptr) {
    std::cout << "fetch   " << Advice().fetch << Printable(path) << "\n";
  }
  if (!options.kind->IsNative()) PrintStillHooked(process);
  if (options.keep_recording) std::cout << "        recording continues\n";
  return kExitOk;
}

}  // namespace

void AddReport(Program* program) {
  const std::string help = (program->IsDevice() ? kReportDeviceIntro : kReportHostIntro) +
                           std::string(kHooksAndExamples);
  const auto [command, options] =
      program->AddCommand("report", "Stop recording and write a report", help, Report);
  AddPid(command, &options->pid);
  AddKind(command, &options->kind);
  AddTimeout(command, &options->timeout_s, "How long to wait (default: 60); 0: forever");
  command->add_flag("--keep-recording", options->keep_recording,
                    "Continue recording; native heap only");
}

}  // namespace memleak
