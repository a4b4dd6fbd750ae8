// In builds without the page.
#include "tools/export/html.h"

namespace memleak {

std::string_view PageShell() {
  return {};
}

}  // namespace memleak
