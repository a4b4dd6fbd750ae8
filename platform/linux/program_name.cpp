// The name of the running program, from glibc. Any thread, any context.
#include "platform/program_name.h"

#include <errno.h>  // program_invocation_short_name is glibc's, not the language's

namespace platform {

const char* ProgramName() {
  return program_invocation_short_name != nullptr ? program_invocation_short_name : "";
}

}  // namespace platform
