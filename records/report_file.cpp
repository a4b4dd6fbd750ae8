// SPDX-License-Identifier: Apache-2.0
// The report: its native section, the report file and the exception-log device.
//
// Runs on the dump thread. Allocating threads wait only while GetInfo groups the records. The text,
// map lookups, file and device are done with only the initialise lock held.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "async_safe/log.h"
#include "backtrace/MapData.h"
#include "platform/bounds_checked.h"
#include "platform/paths.h"
#include "platform/published_state.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/profile.h"
#include "records/report_text.h"
#include "tracker/control/MemTrackControl.h"

namespace {

using protocol::kLogTag;

/// Maximum number of native records that a report shows. The others are only counted.
constexpr std::size_t kMaxShownRecords = 1000;

// The buffer for the exception-log device, all fields little-endian:
//   0  u32 magic, 4  u32 kind, 8  u64 length of the text, 16  the text.
constexpr std::uint32_t kDeviceMagic = 0x5377FEFA;
constexpr std::uint32_t kDeviceKind = 2;
constexpr std::size_t kDeviceHeaderBytes = 16;
constexpr std::size_t kDeviceTextBytes = 0x500000;
constexpr std::size_t kDeviceBufferBytes = kDeviceHeaderBytes + kDeviceTextBytes;
/// Type 0xAF, number 6, without direction or size bits.
constexpr int kDeviceRequest = 0xAF06;

/// Stops recording of this thread's allocations and mappings during its lifetime, since recording
/// may be on while a report is written. The mark of the record store is not enough: GetInfo removes
/// it, and frees must still reach the records.
class ThreadNotRecorded {
 public:
  ThreadNotRecorded() : control_(MemTrackControl::GetInstance()) {
    if (control_ == nullptr) return;
    heap_ = control_->ThreadEnabled();
    if (heap_) control_->DisableThread();
    mappings_ = control_->PltThreadEnabled();
    if (mappings_) control_->DisablePltThread();
  }
  ~ThreadNotRecorded() {
    if (mappings_) control_->EnablePltThread();
    if (heap_) control_->EnableThread();
  }
  ThreadNotRecorded(const ThreadNotRecorded&) = delete;
  ThreadNotRecorded& operator=(const ThreadNotRecorded&) = delete;

 private:
  const MemTrackControl* const control_;
  bool heap_ = false;
  bool mappings_ = false;
};

void ReportNoMemory() {
  async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "FAILED TO ALLOC STACKINFO MEMORY!");
  platform::PublishReportFailure(ENOMEM, "no memory for the report");
}

struct FreeDeleter {
  void operator()(unsigned char* memory) const { std::free(memory); }
};

void StoreLittleEndian(unsigned char* destination, std::uint64_t value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    destination[i] = static_cast<unsigned char>(value >> (8 * i));
  }
}

/// Fills the zeroed device buffer from `text`. The length includes a final NUL. A text that is too
/// long is cut and has no NUL.
void FillDeviceBuffer(unsigned char* buffer, const ReportText& text) {
  const std::size_t length = std::min(text.size() + 1, kDeviceTextBytes);
  StoreLittleEndian(buffer, kDeviceMagic, 4);
  StoreLittleEndian(buffer + 4, kDeviceKind, 4);
  StoreLittleEndian(buffer + 8, length, 8);
  text.CopyStart(reinterpret_cast<char*>(buffer + kDeviceHeaderBytes),
                 std::min(text.size(), length));
}

/// Writes all of `text`, in pieces: a process that leaks may have no memory for a second copy. If a
/// write fails, the file stays incomplete and lacks the "END" mark.
void WriteReportFile(const ReportText& text) {
  std::FILE* file = platform::OpenReportFile();
  if (file == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "no permission to access /data/log/reliability/");
    return;
  }
  text.ForEachPiece([file](const char* piece, std::size_t bytes) {
    return std::fwrite(piece, 1, bytes, file) == bytes;
  });
  const bool failed = std::ferror(file) != 0;
  const int error = errno;
  if (std::fclose(file) == 0 && !failed) return;
  platform::PublishReportFailure(failed ? error : errno, "cannot write the report: %s",
                                 std::strerror(failed ? error : errno));
}

/// Sends `buffer` (kDeviceBufferBytes long) to the device. `text_bytes` is only logged.
void SendToDevice(unsigned char* buffer, std::size_t text_bytes) {
  std::string path;
  const int fd = platform::OpenExceptionDevice(path);
  if (fd < 0) {
    // Intentional: the line break inside the message.
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "open %s failed: %s\n", path.c_str(),
                          std::strerror(errno));
    return;
  }
  if (ioctl(fd, kDeviceRequest, buffer) != 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "failed to save stacktrace,errno:%s",
                          std::strerror(errno));
  } else {
    // Intentional: the spelling and the trailing blank. Log readers search for this message.
    async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "ioctl native stacktrace sucess,len:%d ",
                          static_cast<int>(text_bytes));
  }
  close(fd);
}

/// Writes the frames of one record. A blank follows each resolved frame.
void WriteFrames(ReportText& out, const std::vector<std::uint64_t>& frames) {
  MapData* const maps = MapData::GetInstance();
  for (const std::uint64_t pc : frames) {
    std::uintptr_t rel_pc = 0;
    const MapEntry* const entry = maps->Find(static_cast<std::uintptr_t>(pc), &rel_pc);
    if (entry == nullptr) {
      // Intentional: no blank after it.
      out << "[unknow]";
      async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "codeMap is null");
      continue;
    }
    (out << '[' << entry->name << "+0x").Hexadecimal(rel_pc) << "] ";
  }
}

/// Writes the line of one group. `now` is in seconds since the epoch.
void WriteRecord(ReportText& out, const RecordStruct& record, std::int64_t now) {
  if (record.frames.empty() || record.times.empty()) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "not be here %zd %zd",
                          static_cast<ssize_t>(record.frames.size()),
                          static_cast<ssize_t>(record.times.size()));
    return;
  }
  out << "sz " << record.size << ' ' << record.total << " num " << record.num << " time ";
  for (const std::int64_t time : record.times) out << now - time << ' ';
  out << " bt ";  // the second of two blanks
  WriteFrames(out, record.frames);
  out << '\n';
}

}  // namespace

void PointerData::DumpAllocationTracesToFile() try {
  const ThreadNotRecorded not_recorded;
  // Held to the end: keeps clears out.
  const std::lock_guard<SetMutex> lock(InitialiseLock());
  const std::unique_ptr<unsigned char, FreeDeleter> buffer(
      static_cast<unsigned char*>(std::malloc(kDeviceBufferBytes)));
  if (buffer == nullptr) {
    ReportNoMemory();
    return;
  }
  platform::memset_s(buffer.get(), kDeviceBufferBytes, 0, kDeviceBufferBytes);

  ReportText text;
  profile::Snapshot snapshot;
  ReportNodes(text, &snapshot);
  ReportJavaNativeNodes(text);
  text << protocol::kReportEnd;  // marks a complete report; no newline follows

  snapshot.Write(text);  // before the report, whose end mark ends the wait of readers
  FillDeviceBuffer(buffer.get(), text);
  WriteReportFile(text);
  SendToDevice(buffer.get(), text.size());
} catch (const std::bad_alloc&) {
  // A process that leaks may have no memory for its report. That must not end it.
  ReportNoMemory();
}

void PointerData::ReportNodes(ReportText& out, profile::Snapshot* snapshot) {
  const auto now = static_cast<std::int64_t>(std::time(nullptr));
  out << "Native Heap MemLeak Tracker Version 2.0:\n";

  std::uint8_t* info = nullptr;
  std::size_t overall_size = 0;
  std::size_t info_size = 0;
  std::size_t total_memory = 0;
  std::size_t backtrace_size = 0;
  std::vector<RecordStruct> records;
  GetInfo(&info, &overall_size, &info_size, &total_memory, &backtrace_size, &records, snapshot);
  const std::size_t record_count = info_size == 0 ? 0 : overall_size / info_size;
  const std::size_t shown_count = std::min(record_count, kMaxShownRecords);

  out << "Total memory(bytes): " << total_memory << '\n';
  out << "Allocation records: " << record_count << '/' << shown_count << '\n';
  out << "Backtrace size: " << backtrace_size << "\n\n";
  async_safe_format_log(ANDROID_LOG_INFO, kLogTag, "ReportNodes:%zu:%zd:%zd", total_memory,
                        static_cast<ssize_t>(record_count), static_cast<ssize_t>(backtrace_size));
  const std::uint64_t unreported = unreported_blocks.load(std::memory_order_relaxed);
  if (unreported != 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "no memory to record %zu blocks: the report lacks those still in use",
                          static_cast<std::size_t>(unreported));
  }

  const std::size_t lines = std::min(shown_count, records.size());
  for (std::size_t i = 0; i < lines; ++i) WriteRecord(out, records[i], now);
}
