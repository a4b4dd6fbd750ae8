// Finding and opening reports.
#include "tools/report/input.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "tools/control.h"
#include "tools/format.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDamagedLinesShown = 5;

void WarnOfDamage(const Profile& profile) {
  const std::size_t shown = std::min(profile.damaged.size(), kDamagedLinesShown);
  for (std::size_t i = 0; i < shown; ++i) {
    const DamagedLine& line = profile.damaged[i];
    std::cerr << "memleak: line " << line.number << " left out: " << FitWidth(line.reason, 120)
              << "\n";
  }
  if (profile.damaged_lines > shown) {
    std::cerr << "memleak: " << profile.damaged_lines - shown << " more lines left out\n";
  }
}

void CheckDirectories(const SymbolOptions& options) {
  std::vector<std::string> directories = options.symbol_dirs;
  if (!options.sysroot.empty()) directories.push_back(options.sysroot);
  for (const std::string& directory : directories) {
    std::error_code ignored;
    if (!fs::is_directory(directory, ignored)) {
      throw UserError("no directory to take symbols from: " + directory,
                      "give --symbols and --sysroot directories that exist");
    }
  }
}

}  // namespace

std::string FindReport(const std::string& given) {
  std::error_code ignored;
  if (!fs::is_directory(given, ignored)) return given;
  const fs::path below = fs::path(given) / kReportFile;
  for (const fs::path& candidate : {below, fs::path(given) / below.filename()}) {
    std::error_code error;
    const bool found = fs::is_regular_file(candidate, error);
    // A directory without permission hides whether the report is there.
    if (found || error == std::errc::permission_denied) return candidate.string();
  }
  throw UserError("no report below " + given, "write one with: memleak report PID");
}

Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options) {
  CheckDirectories(options);
  const std::string path = FindReport(given);
  Profile profile = LoadProfile(path, options);
  if (!profile.complete && !partial) {
    throw UserError("report is truncated: " + path + " (no \"END\" at its end)",
                    "wait until it is written, or see what is there with --partial");
  }
  WarnOfDamage(profile);
  return profile;
}

}  // namespace memleak
