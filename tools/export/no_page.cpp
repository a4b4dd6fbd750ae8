// SPDX-License-Identifier: Apache-2.0
// In builds without the page.
#include "tools/export/html.h"

namespace memleak {

std::string_view PageShell() {
  return {};
}

}  // namespace memleak
