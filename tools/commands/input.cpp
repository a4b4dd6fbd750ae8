// SPDX-License-Identifier: Apache-2.0
#include "tools/commands/input.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <optional>
#include <vector>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/report/load.h"
#include "tools/target/attach.h"
#include "tools/target/inspect.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDamagedLinesShown = 5;

// Advice for libraries that are newer than the report, and than the earlier of two.
constexpr const char* kNewerRemedy = "keep the files from the time of the report and use --sysroot";
constexpr const char* kNewerOldRemedy =
    "use the files from the time of the report with --old-symbols or --old-sysroot";

// Line numbers, which are ascending, as "16-30, 44".
std::string Ranges(const std::vector<std::uint64_t>& lines) {
  std::string text;
  for (std::size_t i = 0; i < lines.size();) {
    std::size_t end = i + 1;
    while (end < lines.size() && lines[end] == lines[end - 1] + 1) ++end;
    if (!text.empty()) text += ", ";
    text += std::to_string(lines[i]);
    if (end - i > 1) text += "-" + std::to_string(lines[end - 1]);
    i = end;
  }
  return text;
}

// Prints missing lines of the head, the first damaged lines with their errors, and the numbers of
// the others. A document has only the numbers.
void WarnOfDamage(const Profile& profile) {
  std::size_t printed = 0;
  std::vector<std::uint64_t> others;
  for (const DamagedLine& line : profile.damaged) {
    const bool missing = line.number == 0;
    if (!missing && (printed >= kDamagedLinesShown || line.reason.empty())) {
      others.push_back(line.number);
      continue;
    }
    ++printed;
    std::cerr << "memleak: ";
    if (!missing) std::cerr << "line " << line.number << " left out: ";
    std::cerr << FitWidth(line.reason, 120) << "\n";
  }
  if (profile.damaged_lines <= printed) return;
  const std::uint64_t rest = profile.damaged_lines - printed;
  std::cerr << "memleak: " << rest << (printed == 0 ? "" : " more")
            << (rest == 1 ? " line" : " lines") << " left out";
  if (!others.empty()) std::cerr << ": " << Ranges(others);
  if (!others.empty() && rest > others.size()) std::cerr << " and later ones";
  std::cerr << "\n";
}

// A newer file may be another build, whose symbols are wrong.
void WarnOfNewerFiles(const Profile& profile, const char* remedy) {
  const auto newer = [](const Library& library) { return library.newer; };
  const auto first = std::find_if(profile.libraries.begin(), profile.libraries.end(), newer);
  if (first == profile.libraries.end()) return;
  const auto count = std::count_if(first, profile.libraries.end(), newer);
  std::cerr << "memleak: names may be wrong: " << FitWidth(first->path, 60);
  if (count > 1) std::cerr << " and " << count - 1 << " more";
  std::cerr << (count > 1 ? " are" : " is") << " newer than " << FitWidth(profile.path, 60) << "; "
            << remedy << "\n";
}

void CheckDirectories(const SymbolOptions& options) {
  std::vector<std::string> directories = options.symbol_dirs;
  for (const std::string& directory : directories) {
    // libdwfl separates directories by colons.
    if (directory.find(':') != std::string::npos) {
      throw UserError("symbol directory has a colon in its name: " + directory,
                      "make a symbolic link to it and give that");
    }
  }
  if (!options.sysroot.empty()) directories.push_back(options.sysroot);
  for (const std::string& directory : directories) {
    std::error_code ignored;
    if (!fs::is_directory(directory, ignored)) {
      throw UserError("symbol directory not found: " + directory, "check the path");
    }
  }
}

bool HasDirectories(const SymbolOptions& options) {
  return !options.symbol_dirs.empty() || !options.sysroot.empty();
}

void ForgetDirectories(SymbolOptions* options) {
  options->symbol_dirs.clear();
  options->sysroot.clear();
}

void Check(const Profile& profile, bool partial) {
  if (!profile.complete && !partial) {
    const char* const end = profile.head ? " (no \"end\" line)" : " (no \"END\" at its end)";
    throw UserError("report is truncated: " + profile.path + end,
                    "wait until it is complete, or show its part with --partial");
  }
  WarnOfDamage(profile);
}

Profile Open(const std::string& given, const ReadOptions& options, const char* newer_remedy) {
  CheckDirectories(options.symbols);
  const std::string path = FindReport(given);
  if (IsJsonDocument(path)) {
    Document document = OpenDocument(path, options);
    if (!document.base) return std::move(document.profile);
    throw UserError("document compares two reports: " + path,
                    "name a report, or a document of memleak export --format json");
  }
  Profile profile = LoadProfile(path, options.symbols);
  Check(profile, options.partial);
  WarnOfNewerFiles(profile, newer_remedy);
  return profile;
}

// The profile beside the report if there is one, else the report.
std::string Preferred(const std::string& report) {
  bool other = false;
  const std::string profile = ProfileBeside(report, &other);
  if (other) {
    std::cerr << "memleak: " << FitWidth(report, 60)
              << ": the profile beside it belongs to another report and is not used\n";
  }
  return profile.empty() ? report : profile;
}

// The process that `given` names, unless a file has that name.
std::optional<pid_t> ProcessNamed(const std::string& given) {
  pid_t pid = 0;
  const char* end = given.data() + given.size();
  const auto parsed = std::from_chars(given.data(), end, pid);
  std::error_code ignored;
  if (parsed.ec != std::errc() || parsed.ptr != end || pid <= 0) return std::nullopt;
  if (fs::exists(given, ignored)) return std::nullopt;
  return pid;
}

// The root directory of `process`, which runs, or of process `pid`, which has ended. Without the
// tracker it is the default.
std::string RootOf(pid_t pid, const std::optional<ProcessInfo>& process) {
  std::error_code ignored;
  if (process && process->state) return process->root;
  for (const std::string& root : DefaultRoots(pid)) {
    if (fs::is_directory(root, ignored)) return root;
  }
  throw UserError("no report of process " + std::to_string(pid),
                  process ? "write one with: memleak report " + std::to_string(pid)
                          : "the process has ended: name its root directory");
}

// The latest report of a process. Throws UserError if the one in its root directory is of another
// process: several can share the directory, and the kernel uses ids again.
std::string ReportOf(pid_t pid) {
  const std::string number = std::to_string(pid);
  std::optional<ProcessInfo> process;
  if (IsAlive(pid)) process = InspectProcess(pid);
  if (process && process->has_state_of_parent) {
    throw UserError("process " + process->Label() + ", a forked child, has written no report",
                    "write one with: memleak report " + number);
  }
  std::string path = FindReport(RootOf(pid, process));
  if (!IsProfile(path)) return path;
  const ProfileHead head = ReadProfileHead(path);
  const bool other = head.pid != (process ? process->inner_pid : pid);
  const std::optional<double> age = process ? AgeOf(pid) : std::nullopt;
  // Both times are rounded down to seconds.
  const bool earlier = age && static_cast<double>(std::time(nullptr) - head.written) > *age + 1;
  if (other || earlier) {
    throw UserError("no report of process " + number + ": " + path + " is of " +
                        (other ? "process " : "an earlier process ") + std::to_string(head.pid),
                    "give that path to read it");
  }
  return path;
}

}  // namespace

std::string FindReport(const std::string& given) {
  std::error_code ignored;
  if (const auto pid = ProcessNamed(given)) return ReportOf(*pid);
  if (!fs::is_directory(RootedPath(given).Text(), ignored)) return Preferred(given);
  const fs::path report = protocol::kReportFile;
  const fs::path profile = protocol::kProfileFile;
  for (const fs::path& name : {report, report.filename(), profile, profile.filename()}) {
    const fs::path candidate = given / name;
    std::error_code error;
    const bool found = fs::is_regular_file(RootedPath(candidate).Text(), error);
    // Without permission for the directory, opening the report fails with the reason.
    if (found || error == std::errc::permission_denied) return Preferred(candidate.string());
  }
  throw UserError("no report below " + given, "write one with: memleak report PID");
}

Profile OpenProfile(const std::string& given, const ReadOptions& options) {
  return Open(given, options, kNewerRemedy);
}

std::pair<Profile, Profile> OpenPair(const std::string& before, const std::string& after,
                                     const ReadOptions& options) {
  const SymbolOptions& own = options.old_symbols;
  ReadOptions later = options;
  ReadOptions earlier = options;
  if (!own.sysroot.empty()) earlier.symbols.sysroot = own.sysroot;
  if (!own.symbol_dirs.empty()) earlier.symbols.symbol_dirs = own.symbol_dirs;
  // The directories have the libraries of that time, this machine may have newer ones.
  earlier.symbols.dirs_first = !own.symbol_dirs.empty() && own.sysroot.empty();
  // Directories for both are in use if at least one of the two is a report.
  const bool earlier_document = IsJsonDocument(FindReport(before));
  const bool later_document = IsJsonDocument(FindReport(after));
  if (!HasDirectories(own) && earlier_document) {
    ForgetDirectories(&earlier.symbols);
  } else if (!HasDirectories(own) && later_document) {
    ForgetDirectories(&later.symbols);
  }
  CheckDirectories(options.symbols);
  std::pair pair(Open(before, earlier, kNewerOldRemedy), Open(after, later, kNewerRemedy));
  const auto& [first, second] = pair;
  if (first.head && second.head && first.head->name != second.head->name) {
    std::cerr << "memleak: these are reports of two programs: " << FitWidth(first.head->name, 40)
              << " and " << FitWidth(second.head->name, 40) << "\n";
  }
  return pair;
}

Document OpenDocument(const std::string& path, const ReadOptions& options) {
  CheckDirectories(options.symbols);
  if (HasDirectories(options.symbols)) {
    std::cerr << "memleak: " << FitWidth(path, 60)
              << ": symbol directories are ignored: the document has its own symbols\n";
  }
  Document document = LoadDocument(path);
  Check(document.profile, options.partial);
  if (document.base) Check(*document.base, options.partial);
  return document;
}

}  // namespace memleak
