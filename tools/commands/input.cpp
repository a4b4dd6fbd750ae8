// SPDX-License-Identifier: Apache-2.0
// Finds and opens reports.
#include "tools/commands/input.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <vector>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"

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
void WarnOfNewerFiles(const Profile& profile, const std::string& remedy) {
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

void WarnUnusedSymbolDirs(const std::string& document, const SymbolOptions& options) {
  if (options.symbol_dirs.empty() && options.sysroot.empty()) return;
  std::cerr << "memleak: " << FitWidth(document, 60)
            << ": symbol directories are ignored: the document has its own symbols\n";
}

void ForgetDirectories(SymbolOptions* options) {
  options->symbol_dirs.clear();
  options->sysroot.clear();
}

void Check(const Profile& profile, bool partial) {
  if (!profile.complete && !partial) {
    throw UserError("report is truncated: " + profile.path + " (no \"END\" at its end)",
                    "wait until it is complete, or show its part with --partial");
  }
  WarnOfDamage(profile);
}

Profile Open(const std::string& given, bool partial, const SymbolOptions& options,
             const std::string& newer_remedy) {
  CheckDirectories(options);
  const std::string path = FindReport(given);
  if (IsJsonDocument(path)) {
    Document document = OpenDocument(path, partial, options);
    if (!document.base) return std::move(document.profile);
    throw UserError("document compares two reports: " + path,
                    "name a report, or a document of memleak export --format json");
  }
  Profile profile = LoadProfile(path, options);
  Check(profile, partial);
  WarnOfNewerFiles(profile, newer_remedy);
  return profile;
}

}  // namespace

std::string FindReport(const std::string& given) {
  std::error_code ignored;
  if (!fs::is_directory(given, ignored)) return given;
  const fs::path below = fs::path(given) / protocol::kReportFile;
  for (const fs::path& candidate : {below, fs::path(given) / below.filename()}) {
    std::error_code error;
    const bool found = fs::is_regular_file(candidate, error);
    // Without permission for the directory, opening the report fails with the reason.
    if (found || error == std::errc::permission_denied) return candidate.string();
  }
  throw UserError("no report below " + given, "write one with: memleak report PID");
}

Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options) {
  return Open(given, partial, options, kNewerRemedy);
}

ProfilePair OpenPair(const std::string& before, const std::string& after, bool partial,
                     const SymbolOptions& options, const OldSymbolOptions& old_options) {
  SymbolOptions old_symbols = ForOld(options, old_options);
  SymbolOptions symbols = options;
  // Directories for both are in use if at least one of the two is a report.
  const bool own = !old_options.symbol_dirs.empty() || !old_options.sysroot.empty();
  const bool old_document = IsJsonDocument(FindReport(before));
  const bool document = IsJsonDocument(FindReport(after));
  if (old_document && !own) ForgetDirectories(&old_symbols);
  if (document && !own && !old_document) ForgetDirectories(&symbols);
  CheckDirectories(options);
  return {Open(before, partial, old_symbols, kNewerOldRemedy),
          Open(after, partial, symbols, kNewerRemedy)};
}

Document OpenDocument(const std::string& path, bool partial, const SymbolOptions& options) {
  CheckDirectories(options);
  WarnUnusedSymbolDirs(path, options);
  Document document = LoadDocument(path);
  Check(document.profile, partial);
  if (document.base) Check(*document.base, partial);
  return document;
}

}  // namespace memleak
