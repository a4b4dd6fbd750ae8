// SPDX-License-Identifier: Apache-2.0
// The name of the program, from glibc.
#include "platform/program_name.h"

#include <errno.h>  // program_invocation_short_name is glibc's own

namespace platform {

const char* ProgramName() {
  return program_invocation_short_name != nullptr ? program_invocation_short_name : "";
}

}  // namespace platform
