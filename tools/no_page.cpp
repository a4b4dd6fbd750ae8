// Stands in for the embedded page in builds that have none.
#include "tools/html.h"

namespace memleak {

std::string_view PageShell() {
  return {};
}

}  // namespace memleak
