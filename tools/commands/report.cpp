// report: has a process write its report.
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/commands/all.h"
#include "tools/commands/options.h"
#include "tools/report/report_parser.h"
#include "tools/target/inspect.h"
#include "tools/target/interference.h"
#include "tools/target/site.h"
#include "tools/target/take_report.h"
#include "tools/view/hooked_pairs.h"
#include "tools/view/show.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
Stops recording, has the process write its report, waits until that is
complete and prints where it is. A report that is already there is kept beside
it as allocations_dump.old. With --kind, the hooks of the latest `on` are taken
away; what earlier ones have left hooked is named, and records nothing.

With --keep-recording the native heap goes on being recorded: no free is missed,
so that reports taken one after the other can be compared. A process that
records through hooks cannot go on: its report takes the hooks away.

Examples:
  memleak report 4711
  memleak report 4711 --keep-recording
  memleak report 4711 --timeout 300
  memleak report 4711 --kind mmap

Exit codes:
  0  the report is complete
  2  no such process, not permitted, not tracked, memory of another kind is
     recorded, or no complete report in time)";

constexpr const char* kDeviceHelp = R"(
Stops recording, has the process write its report, waits until that is complete
and prints where it is and how to fetch it:
/data/log/reliability/allocations_dump. The directory must exist and be writable
for the process. A report that is already there, of any process, is kept beside
it as allocations_dump.old. With --kind, the hooks of the latest `on` are taken
away; what earlier ones have left hooked is named, and records nothing.

With --keep-recording the native heap goes on being recorded: no free is missed,
so that reports taken one after the other can be compared.

Examples:
  memleak report 4711
  memleak report 4711 --keep-recording
  memleak report 4711 --kind mmap

Exit codes:
  0  the report is complete
  2  no such process, not permitted, not tracked, or no complete report in time)";

struct ReportOptions {
  pid_t pid = 0;
  const Kind* kind = &protocol::kNative;
  std::uint32_t timeout_s = 60;  ///< 0: wait without end
  bool keep_recording = false;   ///< of the native heap
};

int Report(const ReportOptions& options) {
  if (options.keep_recording && !options.kind->IsNative()) {
    throw UserError(std::string("--keep-recording is not for --kind ") + options.kind->name +
                        ": its report takes the hooks away",
                    "leave out one of them");
  }
  const ProcessInfo process = RequireTracked(options.pid);
  RefuseBeside(process, *options.kind);
  const std::uint64_t word =
      options.keep_recording ? protocol::kReportKeepRecording : options.kind->Report();
  const std::chrono::milliseconds took =
      TakeReport(process, word, options.timeout_s, OldReport::kKeepBeside);
  const std::string path = process.ReportPath();

  ReportHeader header;
  ReadReportFile(path, {}, &header);
  std::cout << "report  " << Printable(path) << "\n"
            << "groups  " << FormatCount(header.groups);
  if (header.listed < header.groups) {
    std::cout << " (the largest " << header.listed << " are listed)";
  }
  if (header.groups == 0) std::cout << "\n        " << kNothingHeld;
  std::cout << "\nbytes   " << FormatCount(header.total_bytes) << " ("
            << FormatBytes(header.total_bytes) << ")\n"
            << "took    " << FormatDuration(took) << "\n";
  const std::string fetch = FetchCommand(path);
  if (!fetch.empty()) std::cout << "fetch   " << Printable(fetch) << "\n";
  if (!options.kind->IsNative()) PrintStillHooked(process);
  if (options.keep_recording) std::cout << "        recording was not touched\n";
  return kExitOk;
}

}  // namespace

void AddReport(Program* program) {
  const bool is_device = program->GetEdition() == Edition::kDevice;
  CLI::App* command = program->AddCommand("report", "Stop recording and write a report",
                                          is_device ? kDeviceHelp : kHelp);
  const auto options = std::make_shared<ReportOptions>();
  AddPid(command, &options->pid);
  AddKind(command, &options->kind);
  AddTimeout(command, &options->timeout_s, "Seconds to wait for the report (60); 0: without end");
  command->add_flag("--keep-recording", options->keep_recording,
                    "Go on recording; of the native heap alone");
  program->SetAction(command, [options] { return Report(*options); });
}

}  // namespace memleak
