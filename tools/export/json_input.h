// SPDX-License-Identifier: Apache-2.0
// Reads JSON documents of reports. The symbols in a document are those of the time when it was
// written. Single-threaded.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/report/model.h"

namespace memleak {

/// Whether the file at `path` is a JSON document rather than a report.
bool IsJsonDocument(const std::string& path);

/// A document and what it describes.
struct Document {
  nlohmann::json json;
  Profile profile;              ///< of two reports the later one, with the groups of both
  std::optional<Profile> base;  ///< the earlier one of two reports, without groups
};

/// The document at `path`, of one report or of two. Members that documents do not have stay empty:
/// addresses in files, reasons of damaged lines. Throws UserError when the document cannot be read
/// or is damaged.
Document LoadDocument(const std::string& path);

}  // namespace memleak
