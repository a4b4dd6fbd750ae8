// What bionic's header has beyond the one here.
#pragma once

#include_next <stdlib.h>

extern "C" const char* getprogname();
