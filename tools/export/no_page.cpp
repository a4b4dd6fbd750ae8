// Stands in for the embedded page in builds that have none.
#include "tools/export/html.h"

namespace memleak {

std::string_view PageShell() {
  return {};
}

}  // namespace memleak
