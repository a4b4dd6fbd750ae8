// SPDX-License-Identifier: Apache-2.0
// The name of the program, from bionic.
#include "platform/program_name.h"

#include <stdlib.h>  // getprogname is bionic's own

namespace platform {

const char* ProgramName() {
  const char* name = getprogname();
  return name != nullptr ? name : "";
}

}  // namespace platform
