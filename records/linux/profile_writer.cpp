// SPDX-License-Identifier: Apache-2.0
// Collects the profile while record operations wait, and writes it afterwards.
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "platform/linux/root.h"
#include "platform/published_state.h"
#include "platform/raw_calls.h"
#include "protocol/private_files.h"
#include "protocol/protocol.h"
#include "records/PointerSet.h"
#include "records/linux/profile_objects.h"
#include "records/linux/profile_text.h"
#include "records/profile.h"
#include "records/record_store.h"
#include "records/report_text.h"

namespace profile {
namespace {

using protocol::kAgeBounds;
using record_store::backtraces;

constexpr std::size_t kBuckets = std::size(kAgeBounds);
/// Name of the file while it is written, in the directory of the profile.
constexpr char kPartialFile[] = "profile.partial";
constexpr std::int64_t kSecondNs = 1'000'000'000;

/// What the head says about the process. Written by Prepare.
char g_program[PATH_MAX];
char g_arguments[4096];
std::size_t g_argument_bytes = 0;
/// When recording began or the records were last cleared, and the kinds recorded since then, as
/// bits.
std::atomic<std::int64_t> g_since{0};
std::atomic<std::uint32_t> g_kinds{0};

const std::atomic<std::uint64_t>* g_unloads = nullptr;

std::int64_t Now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

std::size_t ReadFile(const char* path, char* buffer, std::size_t bytes) {
  const int file = platform::RawOpen(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  std::size_t used = 0;
  for (ssize_t count = 1; count > 0 && used < bytes; used += static_cast<std::size_t>(count)) {
    count = platform::RawRead(file, buffer + used, bytes - used);
    if (count < 0) break;
  }
  platform::RawClose(file);
  return used;
}

std::int64_t Nanoseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * kSecondNs + time.tv_nsec;
}

/// Returns when the process started or was forked, in seconds since the epoch; the current time if
/// that is unknown. Read here and not stored at a fork, so that an idle forked child writes to no
/// page of the tracker.
std::int64_t StartTime() {
  char text[1024];
  text[ReadFile("/proc/self/stat", text, sizeof text - 1)] = '\0';
  // The 22nd field. The second is the name in brackets, which may contain any character.
  const char* field = std::strrchr(text, ')');
  for (int number = 2; number < 22 && field != nullptr; ++number) {
    field = std::strchr(field + 1, ' ');
  }
  if (field == nullptr) return Now();
  const std::int64_t start = std::strtoll(field, nullptr, 10) * (kSecondNs / sysconf(_SC_CLK_TCK));
  return (Nanoseconds(CLOCK_REALTIME) - Nanoseconds(CLOCK_BOOTTIME) + start) / kSecondNs;
}

/// The observer of dlclose (protocol::UnloadObserver).
void ObserveUnload(bool closed) {
  // Without backtraces, code versions need not be distinguished. The check may miss a backtrace
  // that another thread has just added, which is harmless. It never misses one of this thread.
  if (backtraces.IsEmpty()) return;
  const std::uint32_t version = CodeVersion();
  if (!UpdateObjects(version) || !closed) return;
  const InsideStore inside;
  if (inside.before() == ThreadMark::kInside) return;
  const FrameInfoListWithLock locks(inside.before() == kHoldsStore);
  // Code at the same addresses, now or later, is other code: it gets backtraces of its own.
  backtraces.Hide([version](const FrameInfoType& backtrace) {
    const std::uint64_t* const pcs = backtrace.pcs();
    for (std::size_t i = ObjectCount(); i-- > 0;) {
      const Object& object = Objects()[i];
      if (object.until.load(std::memory_order_relaxed) != version) continue;
      if (std::any_of(pcs, pcs + backtrace.num_frames,
                      [&](std::uint64_t pc) { return object.Contains(pc); })) {
        return true;
      }
    }
    return false;
  });
}

}  // namespace

void Prepare() {
  const int saved_errno = errno;
  const ssize_t length = readlink("/proc/self/exe", g_program, sizeof g_program - 1);
  g_program[std::max<ssize_t>(length, 0)] = '\0';
  g_argument_bytes = protocol::ArgumentBytes(
      g_arguments, ReadFile("/proc/self/cmdline", g_arguments, sizeof g_arguments));
  errno = saved_errno;
  g_unloads =
      static_cast<const std::atomic<std::uint64_t>*>(dlsym(RTLD_DEFAULT, protocol::kUnloadCounter));
  auto* const observer = static_cast<std::atomic<protocol::UnloadObserver>*>(
      dlsym(RTLD_DEFAULT, protocol::kUnloadObserver));
  if (observer != nullptr) observer->store(ObserveUnload, std::memory_order_release);
}

void NoteOn(protocol::MemTrackType kind) {
  if (g_kinds.fetch_or(1U << kind) == 0) g_since.store(Now());
}

void NoteClear() {
  const MemTrackControl* const control = MemTrackControl::GetInstance();
  const std::uint32_t native = 1U << protocol::NATIVE;
  std::uint32_t kept = 0;
  if (control != nullptr && control->GetHookStart()) kept |= native;
  if (control != nullptr && control->GetPltHookStart()) kept |= ~native;
  g_kinds.fetch_and(kept);
  g_since.store(Now());
}

std::uint32_t CodeVersion() {
  return g_unloads == nullptr
             ? 0
             : static_cast<std::uint32_t>(g_unloads->load(std::memory_order_acquire));
}

/// The live blocks of one stack.
struct Snapshot::Row {
  const FrameInfoType* backtrace;
  std::uint64_t bytes;
  std::uint32_t blocks;
  std::uint32_t min_size;
  std::uint32_t max_size;
  std::int32_t first_time;  ///< as in Record
  std::int32_t last_time;
  std::uint32_t ages[kBuckets];

  void Add(std::uint32_t size, std::int32_t time, std::int64_t now) {
    if (blocks++ == 0) {
      min_size = max_size = size;
      first_time = last_time = time;
    }
    bytes += size;
    min_size = std::min(min_size, size);
    max_size = std::max(max_size, size);
    first_time = std::min(first_time, time);
    last_time = std::max(last_time, time);
    const std::int64_t age = now - time;
    std::size_t bucket = 0;
    for (std::size_t i = 1; i < kBuckets; ++i) bucket += age >= kAgeBounds[i] ? 1U : 0U;
    ++ages[bucket];
  }
};

Snapshot::~Snapshot() {
  if (rows_ == nullptr) return;
  backtraces.Unpin();
  munmap(rows_, bytes_);
}

void Snapshot::Collect() {
  // Row 0 is for blocks without a backtrace.
  const std::size_t bytes = (backtraces.size() + 1) * sizeof(Row);
  Row* const rows = static_cast<Row*>(MapPages(bytes));
  if (rows == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "no memory for the profile");
    return;
  }
  rows_ = rows;
  bytes_ = bytes;
  backtraces.Pin();
  time_ = Now();
  const std::int64_t now = time_ - kRecordTimeBase;
  std::uint32_t count = 1;
  record_store::ForEachRecord([&](std::uint64_t /*address*/, const Record& record) {
    if (RecordKey::IsKept(record.key)) return;
    std::uint32_t row = 0;
    if (record.backtrace != 0) {
      FrameInfoType* const backtrace = backtraces.At(record.backtrace);
      row = backtrace->note;
      if (row == 0 || row >= count || rows[row].backtrace != backtrace) {
        row = backtrace->note = count++;
        rows[row].backtrace = backtrace;
      }
    }
    rows[row].Add(record.size & (static_cast<std::uint32_t>(kZygoteChildBit) - 1), record.time,
                  now);
  });
  count_ = count;
}

namespace {

std::string_view HostName(utsname* names) {
  return uname(names) == 0 ? names->nodename : "";
}

std::uint64_t DigestOf(const ReportText& report) {
  std::uint64_t digest = protocol::kDigestStart;
  report.ForEachPiece([&](const char* piece, std::size_t bytes) {
    digest = protocol::Digest({piece, bytes}, digest);
    return true;
  });
  return digest;
}

}  // namespace

void Snapshot::WriteHead(Text& out, const FrameTable& frames, const ReportText& report) const {
  out << protocol::kProfileMark << "\nlibrary " << MEMLEAK_VERSION << "\nprogram ";
  out.Word(g_program) << "\narguments";
  for (std::size_t at = 0; at < g_argument_bytes;) {
    const std::size_t bytes = strnlen(g_arguments + at, g_argument_bytes - at);
    out << ' ';
    if (bytes == 0) out << "\\";  // an empty argument
    out.Word({g_arguments + at, bytes});
    at += bytes + 1;
  }
  utsname names;
  out << "\npid " << std::int64_t{getpid()} << "\nhost ";
  out.Word(HostName(&names)) << "\nstarted " << StartTime() << "\nwritten " << time_ << "\nsince "
                             << g_since.load() << "\nkinds";
  for (const protocol::Kind& kind : protocol::kKinds) {
    if ((g_kinds.load() >> kind.type & 1) != 0) out << ' ' << kind.name;
  }
  const bool tables = current_backtrace_type.load() == protocol::kUnwindTables;
  out << "\nunwind " << (tables ? "tables" : "frame-pointers") << "\ndepth "
      << std::uint64_t{BacktraceSize()} << "\nunrecorded " << unreported_blocks.load()
      << "\nreport " << std::uint64_t{report.size()} << ' ';
  out.Hexadecimal(DigestOf(report)) << "\nages";
  for (const std::int64_t bound : kAgeBounds) out << ' ' << bound;
  out << '\n';
  for (std::size_t i = 0; i < frames.objects; ++i) {
    const Object& object = Objects()[i];
    const bool closed = object.until.load(std::memory_order_relaxed) != 0;
    out << (closed ? "closed " : "object ");
    out.Hexadecimal(object.bias) << ' ';
    for (std::size_t byte = 0; byte < object.build_id_bytes; ++byte) {
      out << kHexDigits[object.build_id[byte] >> 4] << kHexDigits[object.build_id[byte] & 15];
    }
    if (object.build_id_bytes == 0) out << '-';
    for (std::size_t s = 0; s < object.segment_count; ++s) {
      const Segment& segment = object.segments[s];
      out << ' ';
      out.Hexadecimal(segment.begin) << '-';
      out.Hexadecimal(segment.end) << '@';
      out.Hexadecimal(segment.offset);
    }
    out << ' ';
    // The dynamic linker does not know the program's name.
    out.Word(*object.path == '\0' && i == 0 ? g_program : object.path) << '\n';
  }
}

/// Writes the new frames of `row`, and its line. Outermost frames that are also in `previous`, the
/// stack of the previous line, are only counted.
void Snapshot::WriteStack(Text& out, FrameTable& frames, const Row& row,
                          const Row* previous) const {
  const FrameInfoType* const backtrace = row.backtrace;
  const std::size_t count = backtrace == nullptr ? 0 : backtrace->num_frames;
  const std::uint32_t version = backtrace == nullptr ? 0 : backtrace->code_version;
  std::size_t shared = 0;
  const bool comparable = count != 0 && previous != nullptr && previous->backtrace != nullptr;
  if (comparable && frames.EraOf(previous->backtrace->code_version) == frames.EraOf(version)) {
    const FrameInfoType& before = *previous->backtrace;
    while (shared < count && shared < before.num_frames &&
           backtrace->pcs()[count - 1 - shared] == before.pcs()[before.num_frames - 1 - shared]) {
      ++shared;
    }
  }
  const std::uint32_t era = frames.EraOf(version);
  for (std::size_t i = 0; i < count - shared; ++i) {
    const std::uint64_t pc = backtrace->pcs()[i];
    if (frames.Find(pc, era).number != 0) continue;
    if (!frames.Grow()) return out.Fail(ENOMEM);
    frames.Find(pc, era) = {pc, era, ++frames.used};
    out << "f " << std::uint64_t{frames.ObjectAt(pc, version)} << ' ';
    out.Hexadecimal(pc) << '\n';
  }
  out << "s " << row.bytes << ' ' << std::uint64_t{row.blocks} << ' ' << std::uint64_t{row.min_size}
      << ' ' << std::uint64_t{row.max_size} << ' ' << time_ - kRecordTimeBase - row.last_time << ' '
      << time_ - kRecordTimeBase - row.first_time;
  char separator = ' ';
  for (std::size_t i = 0; i < kBuckets; ++i) {
    if (row.ages[i] == 0) continue;
    out << separator << std::uint64_t{i} << ':' << std::uint64_t{row.ages[i]};
    separator = ',';
  }
  out << ' ' << std::uint64_t{shared};
  for (std::size_t i = 0; i < count - shared; ++i) {
    out << ' ';
    out.Hexadecimal(frames.Find(backtrace->pcs()[i], era).number);
  }
  out << '\n';
}

void Snapshot::Write(const ReportText& report) {
  UpdateObjects(CodeVersion());
  char path[platform::kPathBytes];
  const std::size_t length = platform::RootedPath(protocol::kProfilePath, path);
  const std::size_t root_bytes = length - std::min(length, std::strlen(protocol::kProfilePath));
  protocol::Refusal refusal;
  const int directory =
      protocol::OpenDirectoryOf(path, root_bytes, protocol::Missing::kMake, refusal);
  int file = -1;
  if (directory >= 0) {
    file = protocol::OpenFile(directory, kPartialFile, protocol::Use::kReplace, refusal);
  }
  const char* const name = std::strrchr(protocol::kProfilePath, '/') + 1;
  char* const buffer = static_cast<char*>(MapPages(Text::kBytes));
  FrameTable frames;
  int error = ENOMEM;
  if (rows_ != nullptr && file >= 0 && buffer != nullptr && frames.Grow()) {
    Text out(file, buffer);
    WriteHead(out, frames, report);
    const Row* previous = nullptr;
    for (std::uint32_t i = rows_[0].blocks == 0 ? 1 : 0; i < count_ && !out.failed(); ++i) {
      WriteStack(out, frames, rows_[i], previous);
      previous = &rows_[i];
    }
    out << "end " << std::uint64_t{count_ - (rows_[0].blocks == 0 ? 1U : 0U)} << '\n';
    error = out.Finish();
    if (error == 0 && renameat(directory, kPartialFile, directory, name) != 0) error = errno;
  }
  if (file < 0 || error != 0) {
    const char* const reason = file < 0 ? refusal.Reason() : std::strerror(error);
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "cannot write the profile %s: %s",
                          path, reason);
    const std::size_t refused = directory < 0 ? refusal.path_bytes : std::strlen(path);
    platform::PublishReportFailure(file < 0 ? refusal.error : error, "cannot write %.*s: %s",
                                   static_cast<int>(refused), path, reason);
    unlinkat(directory, kPartialFile, 0);
    unlinkat(directory, name, 0);
  }
  if (buffer != nullptr) munmap(buffer, Text::kBytes);
  if (file >= 0) platform::RawClose(file);
  if (directory >= 0) platform::RawClose(directory);
}

}  // namespace profile
