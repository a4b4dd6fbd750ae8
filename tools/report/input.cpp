// Finding and opening reports.
#include "tools/report/input.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "tools/control.h"
#include "tools/format.h"
#include "tools/report/json_input.h"
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
    std::cerr << "memleak: " << profile.damaged_lines - shown << (shown == 0 ? "" : " more")
              << " lines left out\n";
  }
}

// Names taken from a file of another build are wrong, and nothing else would tell.
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
  if (!options.sysroot.empty()) directories.push_back(options.sysroot);
  for (const std::string& directory : directories) {
    std::error_code ignored;
    if (!fs::is_directory(directory, ignored)) {
      throw UserError("no directory to take symbols from: " + directory,
                      "give only directories that exist");
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

Profile OpenProfile(const std::string& given, bool partial, const SymbolOptions& options,
                    const std::string& newer_remedy) {
  CheckDirectories(options);
  const std::string path = FindReport(given);
  Profile profile = IsJsonDocument(path) ? LoadDocument(path) : LoadProfile(path, options);
  if (!profile.complete && !partial) {
    throw UserError("report is truncated: " + path + " (no \"END\" at its end)",
                    "wait until it is written, or see what is there with --partial");
  }
  WarnOfDamage(profile);
  WarnOfNewerFiles(profile, newer_remedy);
  return profile;
}

}  // namespace memleak
