// The difference of two reports as one JSON document, for programs: docs/report-json.md describes
// it. Called by `diff` and by the page; single-threaded.
#pragma once

#include <string>

#include "tools/report/model.h"

namespace memleak {

/// The document of `after` with what `before` had beside each of its groups, on one line that ends
/// with a newline; always valid UTF-8.
std::string DiffJson(const Profile& before, const Profile& after);

}  // namespace memleak
