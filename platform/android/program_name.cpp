// The name of the running program, from bionic. Any thread, any context.
#include "platform/program_name.h"

#include <stdlib.h>  // getprogname is bionic's, not the language's

namespace platform {

const char* ProgramName() {
  const char* name = getprogname();
  return name != nullptr ? name : "";
}

}  // namespace platform
