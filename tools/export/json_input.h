// Reads the document of a report back: symbols stay those of the time when it was exported,
// whatever has become of the libraries since. Called by what opens reports; single-threaded.
#pragma once

#include <optional>
#include <string>

#include "tools/report/model.h"

namespace memleak {

/// Whether the file at `path` holds a JSON document rather than a report.
bool IsJsonDocument(const std::string& path);

/// The profile in the document at `path`, as `export --format json` has written it. What no
/// document holds stays empty: addresses in files, reasons of damaged lines. Throws UserError when
/// it cannot be read, is damaged, or holds two reports or a part of one.
Profile LoadDocument(const std::string& path);

/// A document with what was found in it.
struct Document {
  Profile profile;              ///< of two reports the later one's, with the groups of both
  std::optional<Profile> base;  ///< the earlier of two reports: its head alone, without groups
  std::string text;             ///< the document itself
};

/// The same for a document of one report or of two, as `diff --json` has written it.
Document LoadAnyDocument(const std::string& path);

}  // namespace memleak
