// SPDX-License-Identifier: Apache-2.0
// Measures the reading of reports: a 100 MB report, and 50,000 distinct frames in 100 libraries
// with full debug information. Prints a table.
//
//   memleak_bench_report [LIBRARY]    uses LIBRARY (default: this program) for all 100 libraries
#include <fcntl.h>
#include <gelf.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "protocol/protocol.h"
#include "tools/report/load.h"
#include "tools/report/model.h"
#include "tools/report/report_parser.h"

namespace {

namespace fs = std::filesystem;
using memleak::Profile;

constexpr std::size_t kReportBytes = 100'000'000;
constexpr std::size_t kLibraries = 100;
constexpr std::size_t kFramesPerLibrary = 500;
constexpr const char* kHead =
    "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 1\n"
    "Allocation records: 1/1\nBacktrace size: 10\n\n";
constexpr const char* kJavaRule =
    "==============================Java-Native Stack==============================\n";

double PeakMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// Returns CPU time, which does not depend on other load.
template <typename Work>
double Seconds(const Work& work) {
  const std::clock_t begin = std::clock();
  work();
  return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

// Returns the size of the last executable segment.
std::uint64_t CodeBytes(const std::string& path) {
  elf_version(EV_CURRENT);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Elf* elf = elf_begin(file, ELF_C_READ, nullptr);
  std::uint64_t bytes = 0;
  std::size_t count = 0;
  if (elf_getphdrnum(elf, &count) != 0) count = 0;
  for (std::size_t i = 0; i < count; ++i) {
    GElf_Phdr segment;
    if (gelf_getphdr(elf, static_cast<int>(i), &segment) == nullptr) continue;
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) bytes = segment.p_memsz;
  }
  elf_end(elf);
  close(file);
  return bytes;
}

// Writes native groups with ages and deep stacks in missing libraries, then Java-native groups.
void WriteLongReport(const std::string& path) {
  std::ofstream out(path, std::ios::binary);
  out << kHead << std::hex;
  std::uint64_t number = 1;
  const auto next = [&] { return number = number * 6364136223846793005U + 1442695040888963407U; };
  for (int i = 0; i < 1000; ++i) {
    out << "sz 64 640 num 10 time ";
    for (int age = 0; age < 10; ++age) out << std::dec << (next() >> 54U) << std::hex << " ";
    out << " bt ";
    for (int frame = 0; frame < 256; ++frame) {
      out << "[/absent/lib/arm64/libname" << (next() >> 58U) << ".so+0x" << (next() >> 50U) << "] ";
    }
    out << "\n";
  }
  out << kJavaRule;
  while (static_cast<std::size_t>(out.tellp()) < kReportBytes) {
    out << "sz 32 64 num 2\n";
    for (int frame = 0; frame < 16; ++frame) {
      // More call sites than a real process has.
      const std::uint64_t place = next() >> 47U;
      out << "#" << (frame < 10 ? "0" : "") << std::dec << frame << std::hex << " rel_pc "
          << 16 * place << " art::interpreter::Execute" << place / 4 << "(int)\n";
    }
  }
  out << protocol::kReportEnd;
}

void WriteFramesReport(const std::string& path, const fs::path& directory, std::uint64_t code) {
  std::ofstream out(path, std::ios::binary);
  out << kHead << std::hex;
  for (std::size_t library = 0; library < kLibraries; ++library) {
    for (std::size_t part = 0; part < 10; ++part) {
      out << "sz 64 640 num 10 time 1  bt ";
      for (std::size_t i = part; i < kFramesPerLibrary; i += 10) {
        const std::uint64_t offset = code * i / kFramesPerLibrary + library;
        out << "[" << (directory / ("lib" + std::to_string(library) + ".so")).string() << "+0x"
            << offset << "] ";
      }
      out << "\n";
    }
  }
  out << kJavaRule << protocol::kReportEnd;
}

void BenchLongReport(const fs::path& directory) {
  const std::string path = (directory / "long").string();
  WriteLongReport(path);
  const double bytes = static_cast<double>(fs::file_size(path));
  memleak::ReportHeader header;
  const double parse = Seconds([&] { memleak::ReadReportFile(path, {}, &header); });
  const double before = PeakMegabytes();
  Profile profile;
  const double load = Seconds([&] { profile = memleak::LoadProfile(path, {}); });
  std::printf("report of %.0f MB, %zu groups, %zu distinct frames\n", bytes / 1e6,
              profile.groups.size(), profile.frames.size());
  std::printf("  parsing alone       %6.2f s CPU   peak %6.0f MiB\n", parse, before);
  std::printf("  into the model      %6.2f s CPU   peak %6.0f MiB\n", load, PeakMegabytes());
}

void BenchSymbols(const fs::path& directory, const std::string& library) {
  for (std::size_t i = 0; i < kLibraries; ++i) {
    fs::create_symlink(library, directory / ("lib" + std::to_string(i) + ".so"));
  }
  const std::string path = (directory / "frames").string();
  WriteFramesReport(path, directory, CodeBytes(library));
  Profile profile;
  const double seconds = Seconds([&] { profile = memleak::LoadProfile(path, {}); });
  std::size_t named = 0;
  std::size_t lines = 0;
  std::size_t inlined = 0;
  for (const memleak::Frame& frame : profile.frames) {
    named += frame.function.empty() ? 0U : 1U;
    lines += frame.line == 0 ? 0U : 1U;
    inlined += frame.inlined ? 1U : 0U;
  }
  std::printf("%zu frames over %zu libraries of %.1f MB: %s\n", kLibraries * kFramesPerLibrary,
              kLibraries, static_cast<double>(fs::file_size(library)) / 1e6, library.c_str());
  std::printf("  symbolized          %6.2f s CPU   peak %6.0f MiB\n", seconds, PeakMegabytes());
  std::printf("  %zu frames: %zu with a function, %zu with a line, %zu inlined\n",
              profile.frames.size(), named, lines, inlined);
}

}  // namespace

int main(int count, char** values) {
  const std::string library = fs::canonical(count > 1 ? values[1] : "/proc/self/exe").string();
  std::string pattern = (fs::temp_directory_path() / "memleak_bench.XXXXXX").string();
  const fs::path directory = mkdtemp(pattern.data());
  BenchSymbols(directory, library);
  BenchLongReport(directory);
  fs::remove_all(directory);
  return 0;
}
