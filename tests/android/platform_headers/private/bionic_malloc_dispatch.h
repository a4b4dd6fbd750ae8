// The dispatch table is not among the platform's headers that can be had here.
#pragma once

#include "platform/standin/include/private/bionic_malloc_dispatch.h"
