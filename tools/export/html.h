// SPDX-License-Identifier: Apache-2.0
// Profiles as a page for the browser. The page is built from web/ and embedded into the program.
// Single-threaded.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/report/diff.h"
#include "tools/report/model.h"

namespace memleak {

/// The groups in `trend` of a page: more do not fit.
inline constexpr std::size_t kTrendsOnPage = 100;

/// What a page shows. The referenced objects are not copied.
struct PageContent {
  const Profile& report;                              ///< its figures; of two reports the later one
  const Profile& groups;                              ///< libraries, frames and groups
  const Profile* base = nullptr;                      ///< the earlier one of two reports
  const std::vector<GroupChange>* changes = nullptr;  ///< of two reports: one for each group
  std::string totals = {};                            ///< if not empty, the JSON of its totals
  std::string trend = {};                             ///< of several reports: see WriteTrendsJson
};

/// The page with "@DATA@" in place of its data. Empty in builds without the page. Defined by a
/// generated source.
std::string_view PageShell();

/// The data of a page, before compression; docs/report-json.md describes it.
std::string PageData(const PageContent& content);

/// Writes a page to the file at `path`: one file without external references. Returns its size in
/// bytes. Throws UserError when that fails, and in builds without the page.
std::size_t WritePage(const PageContent& content, const std::string& path);

/// WritePage for what changed between two reports. `trend`: see PageContent.
std::size_t WriteDifferencePage(const Profile& before, const Profile& after,
                                const std::string& trend, const std::string& path);

}  // namespace memleak
